// Common parts of the metadata tests: lists parsed from text, and a store in a temporary folder.
#pragma once

#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/standalone/metadata/metadata_file.h"
#include "platform/standalone/metadata/metadata_list.h"
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

// The standard error output of `work`.
template <typename work>
std::string printed_by(const work& the_work)
{
    testing::internal::CaptureStderr();
    the_work();
    return testing::internal::GetCapturedStderr();
}
