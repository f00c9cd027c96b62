// Common parts of the metadata tests: lists parsed from text, and a store in a temporary folder.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/standalone/metadata/metadata_file.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/stored_update.h"
#include "platform/time.h"
#include "tests/support/temporary_folder.h"

using platform::list_owner;

inline list_owner list_from(std::string_view text)
{
    platform::text_document document;
    platform::text_fault fault;
    EXPECT_TRUE(platform::parse_metadata(text, &document, &fault)) << fault.reason;
    return list_owner(platform::new_metadata_list(std::move(document)));
}

// The store of `folder`: its messages name "META" and it waits only briefly for the lock.
inline platform::metadata_store store_in(const temporary_folder& folder)
{
    platform::metadata_store store;
    store.folder = folder.fd();
    store.path = "META";
    store.lock_limit_us = 20'000;
    return store;
}

// Carries out all steps of a stored_update. 0, or -1 after a message, which is also stored in
// *reason. `own` is the caller's pending file, which contains only these settings.
inline int update_stored_metadata(const platform::metadata_store& store,
                                  const platform::item_settings& settings,
                                  platform::pending_file* own = nullptr,
                                  std::string* reason = nullptr)
{
    std::vector<platform::pending_file> files(1);
    if (own != nullptr) {
        files[0] = std::move(*own);
    }
    platform::update_progress progress = platform::update_progress::WORKED;
    {
        platform::stored_update update(store, settings, &files, monotonic_clock_us());
        while (progress != platform::update_progress::DONE &&
               progress != platform::update_progress::FAILED) {
            progress = update.step(monotonic_clock_us());
        }
        if (reason != nullptr) {
            *reason = update.reason();
        }
    }
    if (own != nullptr) {
        *own = std::move(files[0]);
    }
    return progress == platform::update_progress::DONE ? 0 : -1;
}

// The standard error output of `work`.
template <typename work>
std::string printed_by(const work& the_work)
{
    testing::internal::CaptureStderr();
    the_work();
    return testing::internal::GetCapturedStderr();
}
