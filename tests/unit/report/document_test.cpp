#include <climits>
#include <filesystem>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json11.hpp>

#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/report/document.h"
#include "platform/start_up.h"
#include "platform/status.h"
#include "tests/support/item_fixture.h"
#include "wire/utf8.h"

namespace {

using json11::Json;

class Document : public item_test::ItemFixture {
protected:
    // The current document, parsed.
    static Json read()
    {
        const std::string& text = platform::status_document();
        EXPECT_TRUE(wire::is_utf8(text));
        EXPECT_LE(text.size(), platform::max_status_document);
        std::string error;
        Json json = Json::parse(text, error);
        EXPECT_EQ(error, "");
        return json;
    }

    void add(const std::string& name, const std::string& value, int tag = -1)
    {
        ASSERT_EQ(metadata_v4_metadata_context_add_name_value_pair(
                      list.get(), name.data(), name.size(), value.data(), value.size(), tag),
                  0);
    }

    platform::list_owner list{platform::new_metadata_list()};
};

TEST_F(Document, HasAllMembersFromTheStart)
{
    const Json json = read();
    EXPECT_EQ(json["item"]["file type"], Json(nullptr));
    EXPECT_EQ(json["item"]["aspect ratio"], (Json::array{0, 0}));
    EXPECT_EQ(json["item"]["background music"], Json(false));
    EXPECT_EQ(json["item"]["time scale"], (Json::array{1, 1}));
    EXPECT_EQ(json["item"]["time duration"], Json(0));
    EXPECT_EQ(json["item"]["video streams"], Json(0));
    EXPECT_EQ(json["process"]["pid"], Json(static_cast<int>(getpid())));
    EXPECT_EQ(json["process"]["version"], Json(STILLIMAGE_VERSION));
    EXPECT_EQ(json["process"]["ready"], Json(0));
    EXPECT_EQ(json["process"]["clients"], Json(0));
    EXPECT_EQ(json["process"]["examined"], Json(false));
    EXPECT_EQ(json["process"]["progress"]["percent"], Json(0));
    EXPECT_EQ(json["process"]["progress"]["text"], Json(""));
    EXPECT_EQ(json["buffer"]["domain"], Json("default"));
    EXPECT_EQ(json["buffer"]["number"], Json(0));
    EXPECT_EQ(json["buffer"]["size"], Json(0));
    EXPECT_EQ(json["metadata"], Json(Json::array{}));
    EXPECT_FALSE(json["metadata cut"].is_bool());
}

TEST_F(Document, ItemsOwnValuesAreUsedOnRequest)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    folder.write("a.png", "sixteen bytes ..");
    vexa_set_string(&vexa_file, "a.png");
    vexa_set_string(&vexa_file_metadir, "meta");
    vexa_set_string(&vexa_sock, "s.sock");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    add("GUID", "28b16888-075e-4af1-9f99-ca77c3173779");
    meta_to_json(list.get());
    EXPECT_FALSE(read()["item"]["file"].is_string());
    item_to_json_common();
    const Json item = read()["item"];
    EXPECT_EQ(item["file"], Json("a.png"));
    EXPECT_EQ(item["file path"], Json(folder.path("a.png")));
    EXPECT_EQ(item["metadata folder"], Json("meta"));
    EXPECT_EQ(item["socket"], Json(folder.path("s.sock")));
    EXPECT_EQ(item["GUID"], Json("28b16888-075e-4af1-9f99-ca77c3173779"));
    std::filesystem::current_path(before);
}

TEST_F(Document, CurrentValuesAreReadWhenItIsBuilt)
{
    vexa_set_string(&vexa_file_type, "image/gif");
    vexa_aspect_ratio = {16, 9};
    vexa_background_music = 1;
    vexa_time_scale = {100, 1};
    vexa_time_duration = 250;
    vexa_ready_write(-1, "Provisional image ready");
    const Json json = read();
    EXPECT_EQ(json["item"]["file type"], Json("image/gif"));
    EXPECT_EQ(json["item"]["aspect ratio"], (Json::array{16, 9}));
    EXPECT_EQ(json["item"]["background music"], Json(true));
    EXPECT_EQ(json["item"]["time scale"], (Json::array{100, 1}));
    EXPECT_EQ(json["item"]["time duration"], Json(250));
    EXPECT_EQ(json["process"]["ready"], Json(-1));
    EXPECT_EQ(json["process"]["progress"]["text"], Json("Provisional image ready"));
}

TEST_F(Document, PictureIsExaminedOnceTheListIsClosed)
{
    vexa_metadata = list.get();
    EXPECT_EQ(read()["process"]["examined"], Json(false));
    metadata_v4_metadata_close_file(vexa_metadata);
    EXPECT_EQ(read()["process"]["examined"], Json(true));
    vexa_metadata = nullptr;
}

TEST_F(Document, NumbersAreClampedToExactDoubles)
{
    vexa_time_duration = INT64_MAX;
    vexa_aspect_ratio = {INT64_MIN, 9007199254740993};
    const std::string& text = platform::status_document();
    EXPECT_NE(text.find("\"time duration\": 9007199254740992"), std::string::npos);
    EXPECT_NE(text.find("[-9007199254740992, 9007199254740992]"), std::string::npos);
}

TEST_F(Document, EntriesAreKeptWhenTheListIsClosed)
{
    add("one", "1");
    add("two", "2", 7);
    meta_to_json(list.get());
    metadata_v4_metadata_close_file(list.get());
    EXPECT_EQ(read()["metadata"],
              Json(Json::array{Json::object{{"name", "one"}, {"tag", -1}, {"value", "1"}},
                               Json::object{{"name", "two"}, {"tag", 7}, {"value", "2"}}}));
    meta_to_json(list.get());
    EXPECT_EQ(read()["metadata"], Json(Json::array{}));
    meta_to_json(nullptr);
}

TEST_F(Document, HolesAreSkipped)
{
    add("one", "1");
    add("two", "2");
    metadata_v4_metadata_context_free_metadata_entry(
        list.get(), metadata_v4_metadata_context_read_entry(list.get(), 0));
    meta_to_json(list.get());
    EXPECT_EQ(read()["metadata"].array_items().size(), 1U);
}

TEST_F(Document, HostileBytesGiveValidJson)
{
    const std::string hostile = "\x1B[2J\n\r\t\"\\%n\x7F\xFF\xC0\x80\xED\xA0\x80\xE2\x80\xA8";
    vexa_set_string(&vexa_file, hostile.c_str());
    vexa_set_string(&vexa_file_type, hostile.c_str());
    add(hostile, hostile);
    meta_to_json(list.get());
    item_to_json_common();
    const Json json = read();
    EXPECT_EQ(json["item"]["file"].string_value(), wire::to_utf8(hostile));
    EXPECT_EQ(json["metadata"][0]["value"].string_value(), wire::to_utf8(hostile));
    EXPECT_EQ(item_test::lines_of(platform::status_document()).size(), 1U);
}

TEST_F(Document, TooManyEntriesAreTruncated)
{
    for (int i = 0; i < 100; ++i) {
        add("entry " + std::to_string(i), std::string(16'000, '\x01'));
    }
    meta_to_json(list.get());
    const Json json = read();
    EXPECT_EQ(json["metadata cut"], Json(true));
    EXPECT_GT(json["metadata"].array_items().size(), 3U);
    EXPECT_LT(json["metadata"].array_items().size(), 100U);
}

TEST_F(Document, WorstCaseStaysWithinTheLimit)
{
    const std::string bad(1 << 20, '\xFF');
    const std::string control(1 << 20, '\x01');
    vexa_set_string(&vexa_file, bad.c_str());
    vexa_set_string(&vexa_file_metadir, control.c_str());
    vexa_set_string(&vexa_sock, control.c_str());
    vexa_set_string(&vexa_file_type, control.c_str());
    vexa_status_write(1, bad.c_str());
    add("GUID", control);
    for (int i = 0; i < 1000; ++i) {
        add(std::string(100, '\xFF') + std::to_string(i),
            std::string(300, i % 2 == 0 ? '"' : '\xFF'));
    }
    meta_to_json(list.get());
    item_to_json_common();
    read();
}

// --- building it --------------------------------------------------------------------------------

int hook_calls = 0;
unsigned long hook_id = 0;

void count_hook(std::map<std::string, Json>& document, unsigned long context_id)
{
    ++hook_calls;
    hook_id = context_id;
    document["image info"] = Json::object{{"width", 17}};
}

TEST_F(Document, ProgramAddsItsPartWithoutAClientContext)
{
    vexa_on_json_build = count_hook;
    hook_calls = 0;
    EXPECT_EQ(read()["image info"]["width"], Json(17));
    EXPECT_EQ(hook_calls, 1);
    EXPECT_EQ(hook_id, no_context_id);
}

TEST_F(Document, IsRebuiltOnlyAfterAChange)
{
    vexa_on_json_build = count_hook;
    hook_calls = 0;
    platform::status_document();
    platform::status_document();
    EXPECT_EQ(hook_calls, 1);
    platform::mark_document_changed();
    platform::mark_document_changed();
    EXPECT_EQ(hook_calls, 1);
    platform::status_document();
    EXPECT_EQ(hook_calls, 2);
    json_next_xmit_rebuild = true;
    platform::status_document();
    EXPECT_EQ(hook_calls, 3);
    EXPECT_FALSE(json_next_xmit_rebuild);
}

TEST_F(Document, GenerationChangesOnlyWithTheText)
{
    platform::status_document();
    const uint64_t before = platform::status_document_generation();
    rebuild_json();
    EXPECT_EQ(platform::status_document_generation(), before);
    vexa_background_music = 1;
    rebuild_json();
    EXPECT_EQ(platform::status_document_generation(), before + 1);
}

TEST_F(Document, TransmissionRebuildsOnRequest)
{
    platform::status_document();
    vexa_on_json_build = count_hook;
    hook_calls = 0;
    json_check_xmit(1'000'000);
    EXPECT_EQ(hook_calls, 0);
    json_next_xmit_rebuild = true;
    json_check_xmit(1'010'000);
    EXPECT_EQ(hook_calls, 1);
    EXPECT_FALSE(json_next_xmit_rebuild);
}

TEST_F(Document, ManyChangesCauseOneRebuildInTenMilliseconds)
{
    platform::status_document();
    vexa_on_json_build = count_hook;
    hook_calls = 0;
    for (uint64_t now_us = 5'000'000; now_us < 5'100'000; now_us += 500) {
        platform::mark_document_changed();
        json_check_xmit(now_us);
    }
    EXPECT_EQ(hook_calls, 10);
    json_check_xmit(6'000'000);
    EXPECT_EQ(hook_calls, 11); // for the last change
    json_check_xmit(7'000'000);
    EXPECT_EQ(hook_calls, 11);
}

TEST_F(Document, EntriesCanBeSetAndAdded)
{
    add("one", "1");
    add("one", "of a part", 3);
    meta_to_json(list.get());
    platform::set_document_entry("one", "changed");
    platform::set_document_entry("two", "new");
    ASSERT_NE(platform::document_entry("two"), nullptr);
    EXPECT_EQ(*platform::document_entry("two"), "new");
    EXPECT_EQ(platform::document_entry("three"), nullptr);
    EXPECT_EQ(read()["metadata"],
              Json(Json::array{Json::object{{"name", "one"}, {"tag", -1}, {"value", "changed"}},
                               Json::object{{"name", "one"}, {"tag", 3}, {"value", "of a part"}},
                               Json::object{{"name", "two"}, {"tag", -1}, {"value", "new"}}}));
}

} // namespace
