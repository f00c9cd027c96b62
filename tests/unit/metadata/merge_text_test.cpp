#include <random>
#include <string>

#include <gtest/gtest.h>

#include "platform/standalone/metadata/merge_text.h"
#include "tests/unit/metadata/metadata_fixture.h"

using platform::item_settings;

namespace {

struct merged {
    std::string text;
    const char* wrong = nullptr;
    bool changed = false;
};

merged merge(std::string_view text, const item_settings& settings)
{
    platform::text_merge merge(settings);
    merged result;
    while (!text.empty() && result.wrong == nullptr) {
        const size_t end = std::min(text.find('\n'), text.size());
        result.wrong = merge.take_line(text.substr(0, end), &result.text);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (result.wrong == nullptr) {
        result.wrong = merge.take_end(false, &result.text);
    }
    result.changed = merge.changed();
    return result;
}

std::string random_text(std::mt19937* random)
{
    static const char* const lines[] = {
        "a = 1\n",          "b = x y\n",   "# comment\n", "\n",          "[3] a = part\n",
        "  c=\\x20\\t\r\n", "a = again\n", "d =\n",       "= unnamed\n", "  #  #\n"};
    std::string text;
    for (auto count = (*random)() % 12; count > 0; --count) {
        text += lines[(*random)() % std::size(lines)];
    }
    if (!text.empty() && (*random)() % 4 == 0) {
        text.pop_back();
    }
    return text;
}

item_settings random_settings(std::mt19937* random)
{
    static const char* const names[] = {"a", "b", "c", "new", "#", "", "d"};
    static const char* const values[] = {"1", "2", " ", "", "x y", "\xFF\n"};
    item_settings settings;
    for (auto count = (*random)() % 5; count > 0; --count) {
        settings[names[(*random)() % std::size(names)]] = values[(*random)() % std::size(values)];
    }
    return settings;
}

} // namespace

TEST(MergeText, AgreesWithTheListOfAllEntries)
{
    std::mt19937 random(1);
    for (int i = 0; i < 5000; ++i) {
        const std::string text = random_text(&random);
        const item_settings settings = random_settings(&random);
        const list_owner list = list_from(text);
        const bool changed = platform::set_item_entries(list.get(), settings).changed;
        const merged result = merge(text, settings);
        ASSERT_EQ(result.wrong, nullptr);
        ASSERT_EQ(result.text, platform::metadata_list_text(*list)) << text;
        ASSERT_EQ(result.changed, changed) << text;
    }
}

TEST(MergeText, NewFileHasItsHeader)
{
    const item_settings settings = {{"a", "1"}};
    platform::text_merge merge(settings);
    std::string text;
    EXPECT_EQ(merge.take_end(true, &text), nullptr);
    EXPECT_EQ(text, std::string(platform::new_metadata_header) + "a = 1\n");
}

TEST(MergeText, DamagedLineIsReportedWithItsNumber)
{
    const item_settings settings = {{"a", "1"}};
    platform::text_merge merge(settings);
    std::string text;
    EXPECT_EQ(merge.take_line("\xEF\xBB\xBF"
                              "a = 2",
                              &text),
              nullptr);
    EXPECT_STREQ(merge.take_line("no entry", &text),
                 "neither an entry (name = value) nor a comment");
    EXPECT_EQ(merge.lines(), 2U);
    EXPECT_EQ(text, "a = 1\n");
}

TEST(MergeText, TooManyEntriesAreRefused)
{
    const item_settings settings = {{"a", "1"}};
    platform::text_merge merge(settings);
    std::string text;
    for (size_t i = 0; i < platform::max_metadata_entries; ++i) {
        ASSERT_EQ(merge.take_line("b = 1", &text), nullptr);
    }
    EXPECT_STREQ(merge.take_end(false, &text), "too many entries");
    EXPECT_STREQ(merge.take_line("b = 1", &text), "too many entries");
}
