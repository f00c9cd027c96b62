#include <string>

#include <gtest/gtest.h>
#include <json11.hpp>

#include "platform/standalone/report/document_entries.h"

using namespace platform;
using json11::Json;

namespace {

class DocumentEntries : public testing::Test {
protected:
    ~DocumentEntries() override { clear_document_entries(); }

    static std::string shown()
    {
        std::string json;
        complete = append_document_entries(&json);
        return json;
    }

    static inline bool complete = false;
    const std::string large = std::string(100'000, 'x');
};

TEST_F(DocumentEntries, NoEntriesAreAnEmptyArray)
{
    EXPECT_EQ(shown(), "[]");
    EXPECT_TRUE(complete);
}

TEST_F(DocumentEntries, TextIsThatOfTheJsonLibrary)
{
    const std::string name = "\"name\\\n\x01";
    append_document_entry(name, "\xFF\xC3\xA4\xE2\x80\xA8", 3);
    append_document_entry("", "", -1);
    const Json expected =
        Json::array{Json::object{{"name", name}, {"tag", 3}, {"value", "\uFFFD\u00E4\u2028"}},
                    Json::object{{"name", ""}, {"tag", -1}, {"value", ""}}};
    EXPECT_EQ(shown(), expected.dump());
}

TEST_F(DocumentEntries, ValueOfTheItemIsFoundAndChanged)
{
    append_document_entry("a", "of a part", 1);
    append_document_entry("a", "1", -1);
    append_document_entry("a", "2", -1);
    EXPECT_EQ(*shown_document_entry("a"), "1");
    change_document_entry("a", "new");
    EXPECT_EQ(*shown_document_entry("a"), "new");
    change_document_entry("b", "added");
    EXPECT_EQ(*shown_document_entry("b"), "added");
    EXPECT_FALSE(has_document_entry("c"));
    EXPECT_EQ(shown_document_entry("c"), nullptr);
}

TEST_F(DocumentEntries, EntriesFromTheFirstThatDoesNotFitAreNotShown)
{
    for (int i = 0; i < 8; ++i) {
        append_document_entry(std::to_string(i), large, -1);
    }
    append_document_entry("small", "x", -1);
    EXPECT_NE(shown().find("\"4\""), std::string::npos);
    EXPECT_EQ(shown().find("\"5\""), std::string::npos);
    EXPECT_EQ(shown().find("small"), std::string::npos);
    EXPECT_FALSE(complete);
    EXPECT_TRUE(has_document_entry("small"));
    EXPECT_EQ(shown_document_entry("small"), nullptr);
}

TEST_F(DocumentEntries, EntryIsShownOnceThereIsRoomAndItIsSetAgain)
{
    for (int i = 0; i < 6; ++i) {
        append_document_entry(std::to_string(i), large, -1);
    }
    change_document_entry("0", "x");
    shown();
    EXPECT_FALSE(complete);
    change_document_entry("5", large);
    EXPECT_EQ(*shown_document_entry("5"), large);
    shown();
    EXPECT_TRUE(complete);
    change_document_entry("0", large);
    EXPECT_EQ(shown_document_entry("5"), nullptr);
    EXPECT_NE(shown_document_entry("4"), nullptr);
}

TEST_F(DocumentEntries, OneEntryMayBeTooLarge)
{
    append_document_entry("a", std::string(600'000, 'x'), -1);
    EXPECT_EQ(shown(), "[]");
    EXPECT_FALSE(complete);
    change_document_entry("a", "1");
    EXPECT_EQ(*shown_document_entry("a"), "1");
}

// Values are set over and over; what is kept for them stays small.
TEST_F(DocumentEntries, MemoryIsBounded)
{
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 256; ++i) {
            change_document_entry(std::to_string(i), std::string(16'384, 'x'));
        }
        EXPECT_LE(document_entries_size(), 2 * max_document_entries + 256 * 16);
    }
}

} // namespace
