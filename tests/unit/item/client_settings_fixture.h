// An item whose clients set metadata, and the folder in which the metadata is stored.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json11.hpp>

#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "platform/standalone/item/client_settings.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/life_cycle.h"
#include "platform/standalone/metadata/metadata_file.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/report/document.h"
#include "platform/start_up.h"
#include "platform/time.h"
#include "tests/support/failing_files.h"
#include "tests/support/item_fixture.h"

namespace item_test {

using failing_files::fate;
using json11::Json;

class ClientSettings : public ItemFixture {
protected:
    ClientSettings()
    {
        failing_files::arm(0, fate::FAIL);
        name_item();
    }

    void name_item()
    {
        name_picture();
        vexa_set_string(&vexa_file_metadir, folder.path("meta").c_str());
    }

    // Makes the item a served one: its list is closed.
    void serve()
    {
        ASSERT_EQ(vexa_standard_to_derived_params(), 0);
        meta_to_json(vexa_metadata);
        metadata_v4_metadata_close_file(vexa_metadata);
    }

    std::string stored() const { return folder.read("meta/metadata"); }

    static std::string shown(const char* name)
    {
        const std::string* value = ::platform::document_entry(name);
        return value != nullptr ? *value : "(none)";
    }

    // Writes what is due, in as many steps as it takes.
    static void write_settings(uint64_t now_us)
    {
        constexpr uint64_t step_us = 100'000;
        while (::platform::store_waiting_settings(now_us) > 0 ||
               ::platform::settings_are_written()) {
            now_us += step_us;
        }
    }

    uint64_t later() const { return monotonic_clock_us() + 1'000'001; }

    std::vector<std::string> names_in_meta() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path("meta"))) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // Starts again on the item, as its next worker does.
    void start_again()
    {
        ::platform::close_item();
        name_item();
        serve();
    }

    static void operations(const platform::file_operations& used)
    {
        static_cast<platform::open_item*>(vexa_meta)->store.operations = &used;
    }
    static void use_failing_files() { operations(failing_files::operations); }

    // What the status document reports as not stored; null for nothing.
    static Json not_stored()
    {
        std::string error;
        return Json::parse(platform::status_document(), error)["metadata not stored"];
    }
};

} // namespace item_test
