// The table of formats is complete, and so is every other list of formats in the tree.
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "bin/examine/formats.h"
#include "bin/examine/image_state.h"

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

TEST(Formats, UnopenedReadersMayBeClosedTwice)
{
    free_all_readers();
    free_all_readers();
}

std::string source_text(const std::string& path)
{
    std::ifstream file(STILLIMAGE_TEST_DATA "/../../" + path);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Formats, EveryListOfFormatsIsComplete)
{
    for (const char* path : {"NEWS.md", "README.md", "SECURITY.md", "docs/man/stillimage.1",
                             "gst/element.cpp", "packaging/debian/packages.cmake"}) {
        const std::string text = source_text(path);
        for (const picture_format& format : picture_formats) {
            EXPECT_NE(text.find(format.name), std::string::npos) << format.name << " in " << path;
        }
    }
    const std::string completion = source_text("packaging/completion/stillimage");
    for (const picture_format& format : picture_formats) {
        EXPECT_NE(completion.find(format.mime), std::string::npos) << format.mime;
    }
}

} // namespace
