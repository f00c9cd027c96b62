// The table of formats is complete, and so is every other list of formats in the tree.
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "bin/examine/formats.h"
#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "bin/examine/webp.h"
#include "tests/support/file_contents.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

TEST(Formats, EveryNumberHasOneRow)
{
    for (int type = 1; type <= max_image_type; ++type) {
        ASSERT_NE(find_format(type), nullptr) << type;
        EXPECT_EQ(find_format(type)->type, type);
    }
    EXPECT_EQ(picture_formats.size(), static_cast<size_t>(max_image_type));
}

TEST(Formats, NamesAndMimeTypesDiffer)
{
    std::set<std::string> texts;
    for (const picture_format& format : picture_formats) {
        EXPECT_TRUE(texts.insert(format.name).second) << format.name;
        EXPECT_TRUE(texts.insert(format.mime).second) << format.mime;
    }
}

TEST(Formats, InvariantNamesTheLastNumber)
{
    EXPECT_EQ(max_image_type_invariant, "image_file_type <= " + std::to_string(max_image_type));
}

TEST(Formats, RowsNameTheirOwnFormatInTheRefusal)
{
    for (const picture_format& format : picture_formats) {
        EXPECT_EQ(format.examination_failed, std::string(format.name) + " examination failed\n");
    }
}

struct open_reader {
    const char* file; // below tests/data
    int type;
    bool (*is_open)();
};

constexpr open_reader readers[] = {
    {"png/basn2c08.png", IMAGE_PNG, [] { return png_context != nullptr; }},
    {"jpeg/size-17x17.jpg", IMAGE_JPEG, [] { return jpeg_decompress != nullptr; }},
    {"tiff/grey-2-strips.tiff", IMAGE_TIFF, [] { return tiff_image != nullptr; }},
    {"gif/still.gif", IMAGE_GIF, [] { return gif_image != nullptr; }},
    {"webp/size-13x1.webp", IMAGE_WEBP, [] { return webp_image != nullptr; }},
};

class FormatReaders : public ExamineFixture {};

TEST_F(FormatReaders, EachIsClosedAndMayBeClosedTwice)
{
    EXPECT_EQ(std::size(readers), picture_formats.size());
    for (const open_reader& reader : readers) {
        scripted::set_picture(read_test_file(reader.file));
        ASSERT_EQ(find_format(reader.type)->examine(), 0) << printed();
        ASSERT_TRUE(reader.is_open()) << reader.file;
        free_all_readers();
        EXPECT_FALSE(reader.is_open()) << reader.file;
        free_all_readers();
        EXPECT_FALSE(reader.is_open()) << reader.file;
    }
}

// --- lists of formats in other files ------------------------------------------------------------

// A list is the text between `begin` and `end`, which it follows directly in the file. A line break
// counts as a space.
struct format_list {
    const char* path;
    const char* begin;
    const char* end;
    const char* before_name = "";
    const char* after_name = "";
    const char* picture_format::*name = &picture_format::name;
};

constexpr format_list lists[] = {
    {"README.md", "identifies the file (", ")"},
    {"README.md", "## Supported formats", "Alpha is supported", "| ", " | "},
    {"SECURITY.md", "Each format has tighter limits of its own:", "## ", "- **", "**: "},
    {"NEWS.md", "identifies and examines ", " files"},
    {"docs/man/stillimage.1", "serves one picture: ", ". It"},
    {"gst/element.cpp", "\"The picture: a ", " file\""},
    {"packaging/debian/packages.cmake", "Decodes a ", " picture once"},
    {"packaging/completion/stillimage", "file-type) _stillimage_add -W '", "'", "", "",
     &picture_format::mime},
};

std::string text_in_one_line(const std::string& path)
{
    std::ifstream file(STILLIMAGE_TEST_DATA "/../../" + path);
    EXPECT_TRUE(file) << path;
    std::string text;
    for (std::string word; file >> word;) {
        text += word + ' ';
    }
    return text;
}

std::string entries_of(const format_list& list)
{
    const std::string text = text_in_one_line(list.path);
    const size_t begin = text.find(list.begin);
    if (begin == std::string::npos) {
        return "";
    }
    const size_t first = begin + strlen(list.begin);
    return text.substr(first, text.find(list.end, first) - first);
}

TEST(Formats, EveryListOfFormatsIsComplete)
{
    for (const format_list& list : lists) {
        const std::string entries = entries_of(list);
        for (const picture_format& format : picture_formats) {
            const std::string entry =
                std::string(list.before_name) + format.*list.name + list.after_name;
            EXPECT_NE(entries.find(entry), std::string::npos)
                << entry << " in the list of " << list.path << ": " << entries;
        }
    }
}

} // namespace
