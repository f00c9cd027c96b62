#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/standalone/metadata/pending_text.h"

namespace {

using platform::append_set_record;
using platform::append_stored_record;
using platform::item_settings;
using platform::parse_pending;
using platform::pending_text;

std::string set_record(std::string_view name, std::string_view value)
{
    std::string text;
    append_set_record(&text, name, value);
    return text;
}

std::string stored_record(std::string_view temporary)
{
    std::string text;
    append_stored_record(&text, temporary);
    return text;
}

// Parses as if no temporary file existed.
pending_text parse(std::string_view text)
{
    return parse_pending(text, [](const std::string&) { return false; });
}

TEST(PendingText, RecordIsALineWithItsChecksum)
{
    EXPECT_EQ(set_record("aspect ratio", "16:9"), "7b9dd754 set aspect ratio = 16:9\n");
    EXPECT_EQ(stored_record("metadata.tmp-0123"), "5c1a137b stored metadata.tmp-0123\n");
}

TEST(PendingText, LastValueOfANameCounts)
{
    const pending_text pending =
        parse(set_record("a", "1") + set_record("b", "2") + set_record("a", "3"));
    EXPECT_EQ(pending.settings, (item_settings{{"a", "3"}, {"b", "2"}}));
    EXPECT_EQ(pending.damaged, 0U);
    EXPECT_TRUE(parse("").settings.empty());
}

TEST(PendingText, AnyBytesSurvive)
{
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        bytes.push_back(static_cast<char>(byte));
    }
    for (const std::string& text : {bytes, std::string(" ends with blanks "), std::string("#x"),
                                    std::string("[3] x"), std::string("\xEF\xBB\xBF")}) {
        const pending_text pending = parse(set_record(text, text));
        EXPECT_EQ(pending.settings, (item_settings{{text, text}}));
        EXPECT_EQ(pending.damaged, 0U);
    }
}

// The last record may be incomplete when the process dies or the disk fills up.
TEST(PendingText, IncompleteLastRecordIsIgnored)
{
    const std::string whole = set_record("a", "1");
    const std::string last = set_record("a", "2");
    for (size_t size = 0; size < last.size(); ++size) {
        const pending_text pending = parse(whole + last.substr(0, size));
        EXPECT_EQ(pending.settings, (item_settings{{"a", "1"}})) << size;
        EXPECT_EQ(pending.damaged, 0U) << size;
    }
}

TEST(PendingText, AnyChangedByteIsDetectedAndAffectsOnlyItsLine)
{
    const std::string before = set_record("a", "1");
    const std::string record = set_record("a", "22");
    const std::string after = set_record("b", "3");
    for (size_t at = 0; at + 1 < record.size(); ++at) {
        std::string changed = record;
        changed[at] = static_cast<char>(changed[at] ^ 0x10);
        const pending_text pending = parse(before + changed + after);
        EXPECT_EQ(pending.settings, (item_settings{{"a", "1"}, {"b", "3"}})) << at;
        EXPECT_EQ(pending.damaged, 1U) << at;
    }
}

TEST(PendingText, CorrectChecksumAloneMakesNoRecord)
{
    // Lines with correct checksums, made like a record.
    const auto line = [](std::string_view body) {
        std::string text = stored_record(body);
        return text; // from "stored BODY"
    };
    for (const char* name :
         {"", "metadata", "metadata.tmp-../../x", "other.tmp-1", "/metadata.tmp-1"}) {
        const pending_text pending = parse(set_record("a", "1") + line(name));
        EXPECT_EQ(pending.settings, (item_settings{{"a", "1"}})) << name;
        EXPECT_EQ(pending.damaged, 1U) << name;
    }
    const pending_text pending = parse(set_record(std::string(4097, 'n'), "too long a name"));
    EXPECT_TRUE(pending.settings.empty());
    EXPECT_EQ(pending.damaged, 1U);
}

TEST(PendingText, RecordsBeforeAStoredRecordCountOnlyWhileItsTemporaryFileExists)
{
    const std::string text = set_record("a", "1") + stored_record("metadata.tmp-1") +
                             set_record("b", "2") + stored_record("metadata.tmp-2") +
                             set_record("c", "3");
    const auto with = [&](const std::vector<std::string>& there) {
        return parse_pending(text, [&](const std::string& temporary) {
            return std::find(there.begin(), there.end(), temporary) != there.end();
        });
    };
    EXPECT_EQ(with({}).settings, (item_settings{{"c", "3"}}));
    EXPECT_EQ(with({"metadata.tmp-2"}).settings, (item_settings{{"b", "2"}, {"c", "3"}}));
    EXPECT_EQ(with({"metadata.tmp-1"}).settings, (item_settings{{"c", "3"}}));
    const pending_text all = with({"metadata.tmp-1", "metadata.tmp-2"});
    EXPECT_EQ(all.settings, (item_settings{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
    EXPECT_EQ(all.temporaries, (std::vector<std::string>{"metadata.tmp-1", "metadata.tmp-2"}));
}

} // namespace
