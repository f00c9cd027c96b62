#include <climits>
#include <string>

#include <gtest/gtest.h>

#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_text.h"
#include "tests/support/metadata_text.h"

namespace {

using platform::text_document;
using platform::text_entry;
using platform::text_fault;

text_document parsed(std::string_view text)
{
    text_document document;
    text_fault fault;
    EXPECT_TRUE(platform::parse_metadata(text, &document, &fault))
        << "line " << fault.line << ": " << fault.reason;
    return document;
}

// "LINE: REASON" for a text that is refused.
std::string refusal(std::string_view text)
{
    text_document document;
    text_fault fault;
    if (platform::parse_metadata(text, &document, &fault)) {
        return "accepted";
    }
    return std::to_string(fault.line) + ": " + fault.reason;
}

text_entry only_entry(std::string_view text)
{
    const text_document document = parsed(text);
    EXPECT_EQ(document.entries.size(), 1U);
    return document.entries.empty() ? text_entry() : document.entries[0];
}

std::string line_of(std::string_view name, std::string_view value, int tag = platform::item_tag)
{
    std::string line;
    platform::append_entry_line(&line, name, value, tag);
    return line;
}

void expect_round_trip(const std::string& name, const std::string& value, int tag)
{
    const std::string line = line_of(name, value, tag);
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "must be one line";
    const text_entry entry = only_entry(line);
    EXPECT_EQ(entry.name, name);
    EXPECT_EQ(entry.value, value);
    EXPECT_EQ(entry.tag, tag);
}

TEST(MetadataText, EntryIsNameAndValue)
{
    const text_entry entry = only_entry("image size = 640 x 480\n");
    EXPECT_EQ(entry.name, "image size");
    EXPECT_EQ(entry.value, "640 x 480");
    EXPECT_EQ(entry.tag, -1);
}

TEST(MetadataText, BlanksAroundNameAndValueAreIgnored)
{
    const text_entry entry = only_entry(" \t a b\t=  c d \t\r\n");
    EXPECT_EQ(entry.name, "a b");
    EXPECT_EQ(entry.value, "c d");
}

TEST(MetadataText, ValueMayHoldTheSeparator)
{
    EXPECT_EQ(only_entry("a=b=c").value, "b=c");
    EXPECT_EQ(only_entry("a\\=b = c").name, "a=b");
}

TEST(MetadataText, NameAndValueMayBeEmpty)
{
    const text_entry entry = only_entry("=\n");
    EXPECT_EQ(entry.name, "");
    EXPECT_EQ(entry.value, "");
}

TEST(MetadataText, LastLineNeedsNoNewline)
{
    EXPECT_EQ(only_entry("a = b").value, "b");
}

TEST(MetadataText, TagStandsInBracketsBeforeTheName)
{
    EXPECT_EQ(only_entry("[3] a = b").tag, 3);
    EXPECT_EQ(only_entry("[3] a = b").name, "a");
    EXPECT_EQ(only_entry("[-2147483648]a = b").tag, INT_MIN);
    EXPECT_EQ(only_entry("[2147483647] = b").tag, INT_MAX);
    EXPECT_EQ(only_entry("a [3] = b").name, "a [3]");
}

TEST(MetadataText, InvalidTagIsRefused)
{
    constexpr const char* reason = "1: a tag is one whole number in brackets";
    for (const char* text : {"[3 a = b", "[] a = b", "[x] a = b", "[3x] a = b", "[ 3] a = b",
                             "[+3] a = b", "[2147483648] a = b", "[-2147483649] a = b", "["}) {
        EXPECT_EQ(refusal(text), reason) << text;
    }
}

TEST(MetadataText, EveryEscapeIsRead)
{
    const text_entry entry = only_entry(R"(\\\=\x3d = \\\n\r\t\=\x41\xfF\x20)");
    EXPECT_EQ(entry.name, "\\==");
    EXPECT_EQ(entry.value, "\\\n\r\t=A\xFF ");
}

TEST(MetadataText, UnknownEscapeIsRefused)
{
    constexpr const char* reason = "1: unknown escape after a backslash";
    for (const char* text :
         {R"(a = \q)", R"(a = \)", R"(a = \x)", R"(a = \x4)", R"(a = \x4g)", R"(a = \xg4)",
          R"(a = \x-1)", R"(a = \x+1)", R"(\q = b)", R"(a = \X41)"}) {
        EXPECT_EQ(refusal(text), reason) << text;
    }
}

TEST(MetadataText, NoEscapeProducesANul)
{
    EXPECT_EQ(refusal(R"(a = \x00)"), "1: unknown escape after a backslash");
}

TEST(MetadataText, OtherLinesAreRefusedWithTheirNumber)
{
    EXPECT_EQ(refusal("a = b\n\n# c\nimage size 3\n"),
              "4: neither an entry (name = value) nor a comment");
    EXPECT_EQ(refusal("a\\=b"), "1: neither an entry (name = value) nor a comment");
}

TEST(MetadataText, NulByteIsRefused)
{
    EXPECT_EQ(refusal(std::string_view("a = b\na = \0b\n", 13)), "2: a NUL byte");
    EXPECT_EQ(refusal(std::string_view("# \0\n", 4)), "1: a NUL byte");
}

TEST(MetadataText, BytesOutsideUtf8AreRefused)
{
    EXPECT_EQ(refusal("a = \xFF\n"), "1: not UTF-8");
    EXPECT_EQ(refusal("# \xC3\n"), "1: not UTF-8");
}

TEST(MetadataText, ByteOrderMarkAtTheStartIsSkipped)
{
    EXPECT_EQ(only_entry("\xEF\xBB\xBF"
                         "a = b")
                  .name,
              "a");
}

TEST(MetadataText, CommentsAndEmptyLinesBelongToTheNextEntry)
{
    const text_document document = parsed("# one\n\n  # two\na = b\n#three\r\nc = d\n\n#four");
    ASSERT_EQ(document.entries.size(), 2U);
    EXPECT_EQ(document.entries[0].leading, "# one\n\n# two\n");
    EXPECT_EQ(document.entries[1].leading, "#three\n");
    EXPECT_EQ(document.trailing, "\n#four\n");
    EXPECT_EQ(written(document), "# one\n\n# two\na = b\n#three\nc = d\n\n#four\n");
}

TEST(MetadataText, EqualNamesAndTheirOrderAreKept)
{
    constexpr const char* text = "b = 1\na = 2\nb = 3\n[7] b = 4\n";
    EXPECT_EQ(written(parsed(text)), text);
}

// Parses the example of docs/metadata.md.
TEST(MetadataText, DocumentedExampleIsParsedAsDescribed)
{
    constexpr const char* text = "# Metadata of one media item. One entry a line: name = value\n"
                                 "aspect ratio = 16:9\n"
                                 "file type = image/gif\n"
                                 "image size = 640 x 480\n"
                                 "title = Gr\xC3\xB6\xC3\x9F"
                                 "e\\tof the\\x20\n"
                                 "[3] language = de\n";
    const text_document document = parsed(text);
    ASSERT_EQ(document.entries.size(), 5U);
    EXPECT_EQ(document.entries[3].value, "Gr\xC3\xB6\xC3\x9F"
                                         "e\tof the ");
    EXPECT_EQ(document.entries[4].tag, 3);
    EXPECT_EQ(document.entries[4].name, "language");
    EXPECT_EQ(written(document), text);
}

TEST(MetadataText, EntryIsWrittenReadably)
{
    EXPECT_EQ(line_of("image size", "640 x 480"), "image size = 640 x 480\n");
    EXPECT_EQ(line_of("title", "gr\xC3\xBC\xC3\x9F"), "title = gr\xC3\xBC\xC3\x9F\n");
    EXPECT_EQ(line_of("a", "b", 12), "[12] a = b\n");
    EXPECT_EQ(line_of("a", "b", -2), "[-2] a = b\n");
}

TEST(MetadataText, AmbiguousCharactersAreEscaped)
{
    EXPECT_EQ(line_of("a=b", "c=d"), "a\\=b = c=d\n");
    EXPECT_EQ(line_of("#a", "#b"), "\\x23a = #b\n");
    EXPECT_EQ(line_of("[1]", "[1]"), "\\x5B1] = [1]\n");
    EXPECT_EQ(line_of(" a ", "  "), "\\x20a\\x20 = \\x20\\x20\n");
    EXPECT_EQ(line_of("a", "x\ny = z\r\t\\"), "a = x\\ny = z\\r\\t\\\\\n");
    EXPECT_EQ(line_of("a", "\x1B\x7F\xFF\xC2\x85"), "a = \\x1B\\x7F\\xFF\\xC2\\x85\n");
    EXPECT_EQ(line_of("\xEF\xBB\xBF"
                      "a",
                      ""),
              "\\xEF\\xBB\\xBF"
              "a = \n");
}

TEST(MetadataText, EveryByteValueSurvivesInEveryPlace)
{
    for (int byte = 1; byte < 256; ++byte) {
        const std::string one(1, static_cast<char>(byte));
        for (const std::string& text :
             {one, one + "x", "x" + one, "x" + one + "y", one + one, " " + one, one + " "}) {
            expect_round_trip(text, "value", -1);
            expect_round_trip("name", text, -1);
            expect_round_trip(text, text, 5);
        }
    }
}

TEST(MetadataText, RandomBytesSurvive)
{
    uint32_t state = 7;
    const auto random_text = [&] {
        std::string text;
        const size_t length = (state >> 8) % 30;
        for (size_t i = 0; i < length; ++i) {
            state = state * 1664525 + 1013904223;
            const auto byte = static_cast<unsigned char>(state >> 24);
            text += static_cast<char>(byte == 0 ? '=' : byte);
        }
        state = state * 1664525 + 1013904223;
        return text;
    };
    for (int round = 0; round < 20000; ++round) {
        expect_round_trip(random_text(), random_text(), static_cast<int>(state));
    }
}

TEST(MetadataText, NameAndValueAreAcceptedUpToTheLimit)
{
    const std::string name(platform::max_entry_name, 'n');
    const std::string value(platform::max_entry_value, 'v');
    EXPECT_EQ(only_entry(name + " = " + value).value, value);
    EXPECT_EQ(refusal(name + "n = v"), "1: the name is too long");
    EXPECT_EQ(refusal("n = v" + value), "1: the value is too long");
}

TEST(MetadataText, EntriesAreAcceptedUpToTheLimit)
{
    std::string text;
    for (size_t i = 0; i < platform::max_metadata_entries; ++i) {
        text += "a=b\n";
    }
    EXPECT_EQ(parsed(text).entries.size(), platform::max_metadata_entries);
    EXPECT_EQ(refusal(text + "a=b\n"), "131073: too many entries");
}

TEST(MetadataText, FileIsAcceptedUpToTheLimit)
{
    const std::string text(platform::max_metadata_file, '\n');
    EXPECT_EQ(parsed(text).trailing.size(), text.size());
    EXPECT_EQ(refusal(text + "\n"), "0: the file is too large");
}

} // namespace
