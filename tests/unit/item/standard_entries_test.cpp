#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/item/standard_entries.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/picture_stamp.h"
#include "platform/standalone/report/document.h"
#include "platform/start_up.h"
#include "tests/support/item_fixture.h"

namespace {

class StandardEntries : public item_test::ItemFixture {
protected:
    void add(const char* name, const char* value, int tag = -1)
    {
        ASSERT_EQ(
            metadata_v4_metadata_context_add_name_value_pair(list.get(), name, 0, value, 0, tag),
            0);
    }

    // The item's value of this name, or "(none)".
    std::string value(const char* name) const
    {
        const metadata_v4_entry* entry = platform::find_item_entry(list.get(), name);
        return entry != nullptr ? entry->value : "(none)";
    }

    void take() { platform::take_stored_settings(list.get()); }

    platform::list_owner list{platform::new_metadata_list()};
};

TEST_F(StandardEntries, AllAreRead)
{
    add("file type", "image/gif");
    add("aspect ratio", "16:9");
    add("background music", "on");
    add("time scale", "100/1");
    add("time duration", "250");
    add("video streams", "1");
    take();
    EXPECT_STREQ(vexa_file_type, "image/gif");
    EXPECT_EQ(vexa_aspect_ratio.numerator, 16);
    EXPECT_EQ(vexa_aspect_ratio.denominator, 9);
    EXPECT_EQ(vexa_background_music, 1);
    EXPECT_EQ(vexa_time_scale.numerator, 100);
    EXPECT_EQ(vexa_time_scale.denominator, 1);
    EXPECT_EQ(vexa_time_duration, 250);
    EXPECT_EQ(vexa_video_streams, 1);
}

TEST_F(StandardEntries, StaleListKeepsOnlyTheUsersChoices)
{
    add("file type", "image/gif");
    add("aspect ratio", "16:9");
    add("background music", "on");
    add("time scale", "100/1");
    add("time duration", "250");
    platform::drop_stale_facts(list.get());
    take();
    EXPECT_EQ(vexa_file_type, nullptr);
    EXPECT_EQ(vexa_time_scale.numerator, 1);
    EXPECT_EQ(vexa_time_duration, 0);
    EXPECT_EQ(vexa_aspect_ratio.numerator, 16);
    EXPECT_EQ(vexa_background_music, 1);
}

TEST_F(StandardEntries, InvalidTextCountsAsMissing)
{
    add("file type", "");
    add("aspect ratio", "wide");
    add("background music", "loud");
    add("time scale", "0/0");
    add("time duration", "-5");
    add("video streams", "99999999999");
    take();
    EXPECT_EQ(vexa_file_type, nullptr);
    EXPECT_EQ(vexa_aspect_ratio.numerator, 0);
    EXPECT_EQ(vexa_background_music, 0);
    EXPECT_EQ(vexa_time_scale.numerator, 1);
    EXPECT_EQ(vexa_time_scale.denominator, 1);
    EXPECT_EQ(vexa_time_duration, 0);
    EXPECT_EQ(vexa_video_streams, 0);
}

TEST_F(StandardEntries, EntriesOfAPartOfTheItemAreIgnored)
{
    add("file type", "image/gif", 0);
    take();
    EXPECT_EQ(vexa_file_type, nullptr);
}

TEST_F(StandardEntries, ValueFromASwitchIsKept)
{
    add("file type", "image/gif");
    add("aspect ratio", "16:9");
    add("background music", "on");
    vexa_set_string(&vexa_file_type, "image/png");
    vexa_aspect_ratio = {4, 3};
    platform::from_switches.file_type_given = true;
    platform::from_switches.aspect_ratio_given = true;
    platform::from_switches.background_music_given = true;
    take();
    EXPECT_STREQ(vexa_file_type, "image/png");
    EXPECT_EQ(vexa_aspect_ratio.numerator, 4);
    EXPECT_EQ(vexa_background_music, 0);
}

TEST_F(StandardEntries, AllAreWritten)
{
    vexa_set_string(&vexa_file_type, "image/gif");
    vexa_aspect_ratio = {16, 9};
    vexa_background_music = 1;
    vexa_time_scale = {100, 1};
    vexa_time_duration = 250;
    vexa_video_streams = 1;
    vexa_standard_vars_to_metadata(list.get());
    EXPECT_EQ(value("file type"), "image/gif");
    EXPECT_EQ(value("aspect ratio"), "16:9");
    EXPECT_EQ(value("background music"), "on");
    EXPECT_EQ(value("time scale"), "100/1");
    EXPECT_EQ(value("time duration"), "250");
    EXPECT_EQ(value("video streams"), "1");
}

TEST_F(StandardEntries, UnknownValuesAreNotWritten)
{
    vexa_standard_vars_to_metadata(list.get());
    EXPECT_EQ(value("file type"), "(none)");
    EXPECT_EQ(value("aspect ratio"), "(none)");
    EXPECT_EQ(value("background music"), "off");
    EXPECT_EQ(value("picture size"), "(none)");
}

TEST_F(StandardEntries, UnknownAspectRatioFromASwitchIsWritten)
{
    add("aspect ratio", "16:9");
    platform::from_switches.aspect_ratio_given = true;
    vexa_standard_vars_to_metadata(list.get());
    EXPECT_EQ(value("aspect ratio"), "0:0");
}

TEST_F(StandardEntries, OtherEntriesKeepTheirPlaces)
{
    add("before", "1");
    add("file type", "image/png");
    add("between", "2");
    add("file type", "image/tiff");
    add("after", "3", 5);
    vexa_set_string(&vexa_file_type, "image/gif");
    vexa_standard_vars_to_metadata(list.get());
    std::vector<std::string> names;
    for (size_t i = 0; i < metadata_v4_metadata_context_entry_count(list.get()); ++i) {
        if (const auto* entry = metadata_v4_metadata_context_read_entry(list.get(), i);
            entry != nullptr) {
            names.emplace_back(entry->name);
        }
    }
    ASSERT_GE(names.size(), 4U);
    names.resize(4);
    EXPECT_EQ(names, (std::vector<std::string>{"before", "file type", "between", "after"}));
    EXPECT_EQ(value("file type"), "image/gif");
}

TEST_F(StandardEntries, SizeAndTimeOfThePictureAreWritten)
{
    name_picture();
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    vexa_standard_vars_to_metadata(list.get());
    EXPECT_EQ(value("picture size"), "16");
    EXPECT_NE(value("picture time"), "(none)");
}

// The picture may be rewritten during the examination. Then the facts found are trusted only until
// the next start.
TEST_F(StandardEntries, StampDescribesThePictureAsItWasOpened)
{
    name_picture("picture.png", "sixteen bytes ..");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    name_picture("picture.png", "other bytes");
    vexa_standard_vars_to_metadata(list.get());
    EXPECT_EQ(value("picture size"), "16");
}

TEST_F(StandardEntries, DocumentShowsTheWrittenValues)
{
    vexa_time_duration = 12345;
    vexa_standard_vars_to_metadata(list.get());
    EXPECT_NE(platform::status_document().find(
                  R"({"name": "time duration", "tag": -1, "value": "12345"})"),
              std::string::npos);
}

TEST_F(StandardEntries, ClosedAndMissingListsAreAccepted)
{
    vexa_standard_vars_to_metadata(nullptr);
    metadata_v4_metadata_close_file(list.get());
    const std::string seen = messages([&] { vexa_standard_vars_to_metadata(list.get()); });
    EXPECT_NE(seen.find("Metadata entry 'background music': cannot be stored\n"),
              std::string::npos);
    take();
    platform::take_stored_settings(nullptr);
}

TEST_F(StandardEntries, StateIsPrinted)
{
    EXPECT_EQ(messages(vexa_print_standard_metadata_state), "Standard metadata:\n"
                                                            "   File type: unknown\n"
                                                            "   Aspect ratio: of the picture\n"
                                                            "   Background music: off\n"
                                                            "   Time scale: 1/1\n");
    vexa_set_string(&vexa_file_type, "image/\x1Bgif%n");
    vexa_aspect_ratio = {-16, 9};
    vexa_background_music = 1;
    vexa_time_scale = {100, 1};
    EXPECT_EQ(messages(vexa_print_standard_metadata_state), "Standard metadata:\n"
                                                            "   File type: image/\\x1Bgif%n\n"
                                                            "   Aspect ratio: -16:9\n"
                                                            "   Background music: on\n"
                                                            "   Time scale: 100/1\n");
}

} // namespace
