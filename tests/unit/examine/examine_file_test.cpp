#include "bin/examine/examine_file.h"
#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "tests/support/gif_writer.h"
#include "tests/support/png_writer.h"
#include "tests/support/tiff_writer.h"
#include "tests/support/webp_writer.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

using texts = std::vector<std::string>;

class ExamineFile : public ExamineFixture {
protected:
    static void set_gif(unsigned width, unsigned height)
    {
        scripted::set_picture(write_gif(
            {.width = width, .height = height, .frames = {{.indices = {0}}, {.indices = {1}}}}));
    }
};

TEST_F(ExamineFile, FrameCountIsOneBeforeAnythingIsExamined)
{
    image_decoded_frames = 9;
    scripted::set_picture("short", 5);
    EXPECT_EQ(examine_file(), -1);
    EXPECT_EQ(image_decoded_frames, 1U);
    EXPECT_EQ(printed(), "");
}

TEST_F(ExamineFile, UnknownContentFails)
{
    scripted::set_picture("0123456789abcdef", 16);
    EXPECT_EQ(examine_file(), 1);
    EXPECT_EQ(printed(), "FIXME: Unknown file type id\n");
}

TEST_F(ExamineFile, ForcedUpdateWritesThoughTheTypeIsKnown)
{
    set_gif(2, 2);
    vexa_set_string(&vexa_file_type, "gif");
    vexa_force_update_metadata = true;
    EXPECT_EQ(examine_file(), 0);
    EXPECT_TRUE(vexa_do_write_metadata);
}

TEST_F(ExamineFile, KnownTypeWithoutForceWritesNothing)
{
    set_gif(2, 2);
    vexa_set_string(&vexa_file_type, "gif");
    EXPECT_EQ(examine_file(), 0);
    EXPECT_FALSE(vexa_do_write_metadata);
}

TEST_F(ExamineFile, NewGuidIsWritten)
{
    set_gif(2, 2);
    vexa_set_string(&vexa_file_type, "gif");
    scripted::plan.guid_is_new = true;
    EXPECT_EQ(examine_file(), 0);
    EXPECT_TRUE(vexa_do_write_metadata);
}

TEST_F(ExamineFile, SniffedPictureGetsItsSizeEntry)
{
    set_gif(30, 20);
    EXPECT_EQ(examine_file(), 0);
    EXPECT_EQ(entries(), (texts{"image size=30 x 20"}));
}

TEST_F(ExamineFile, EveryOldSizeEntryOfTheItemIsReplaced)
{
    add_entry("image size", "1 x 1");
    add_entry("image size", "2 x 2");
    add_entry("title", "a picture");
    add_entry("image size", "3 x 3", 0);
    add_entry("image size ", "4 x 4");
    add_entry("image siz", "5 x 5");
    add_entry("", "6 x 6");
    add_entry("image size", "7 x 7");
    set_gif(30, 20);
    EXPECT_EQ(examine_file(), 0);
    EXPECT_EQ(entries(), (texts{"title=a picture", "image size=3 x 3", "image size =4 x 4",
                                "image siz=5 x 5", "=6 x 6", "image size=30 x 20"}));
}

TEST_F(ExamineFile, HolesInTheListAreSkipped)
{
    add_entry("gone", "1");
    add_entry("image size", "1 x 1");
    metadata_v4_metadata_context_free_metadata_entry(
        vexa_metadata, metadata_v4_metadata_context_read_entry(vexa_metadata, 0));
    set_gif(30, 20);
    EXPECT_EQ(examine_file(), 0);
    EXPECT_EQ(entries(), (texts{"image size=30 x 20"}));
}

TEST_F(ExamineFile, ThousandsOfSizeEntriesAreReplaced)
{
    for (int i = 0; i < 2000; ++i) {
        add_entry("image size", "1 x 1");
    }
    set_gif(30, 20);
    EXPECT_EQ(examine_file(), 0);
    EXPECT_EQ(entries(), (texts{"image size=30 x 20"}));
}

TEST_F(ExamineFile, KnownTypeLeavesTheSizeEntriesAlone)
{
    add_entry("image size", "1 x 1");
    set_gif(30, 20);
    vexa_set_string(&vexa_file_type, "GIF");
    EXPECT_EQ(examine_file(), 0);
    EXPECT_EQ(entries(), (texts{"image size=1 x 1"}));
}

TEST_F(ExamineFile, JpegAbortFlagIsClearedBeforeTheFormatIsExamined)
{
    jpeg_should_abort = 1;
    set_gif(2, 2);
    EXPECT_EQ(examine_file(), 0);
    EXPECT_EQ(jpeg_should_abort, 0);
}

struct failing_format {
    const char* type;
    const char* last_line;
};

class ExamineFileFailure : public ExamineFixture,
                           public testing::WithParamInterface<failing_format> {};

TEST_P(ExamineFileFailure, NamesTheFormat)
{
    scripted::set_picture("0123456789abcdef", 16);
    vexa_set_string(&vexa_file_type, GetParam().type);
    EXPECT_EQ(examine_file(), 1);
    const std::string text = printed();
    const std::string last = GetParam().last_line;
    ASSERT_GE(text.size(), last.size());
    EXPECT_EQ(text.substr(text.size() - last.size()), last);
    EXPECT_EQ(entries(), texts{});
}

TEST_P(ExamineFileFailure, MissingFileHandleIsReportedFirst)
{
    scripted::set_picture("0123456789abcdef", 16);
    scripted::plan.file_handle_fails = true;
    vexa_set_string(&vexa_file_type, GetParam().type);
    EXPECT_EQ(examine_file(), 1);
    EXPECT_EQ(printed(), std::string("Unable to get file handle\n") + GetParam().last_line);
}

INSTANTIATE_TEST_SUITE_P(Formats, ExamineFileFailure,
                         testing::Values(failing_format{"jpeg", "JPEG examination failed\n"},
                                         failing_format{"png", "PNG examination failed\n"},
                                         failing_format{"tiff", "TIFF examination failed\n"},
                                         failing_format{"gif", "GIF examination failed\n"},
                                         failing_format{"webp", "WebP examination failed\n"}),
                         [](const auto& name) { return std::string(name.param.type); });

TEST_F(ExamineFile, EachFormatReachesItsOwnExamination)
{
    const std::vector<unsigned char> pixels(size_t{30} * 20 * 4, 255);
    const std::pair<int, std::vector<unsigned char>> pictures[] = {
        {IMAGE_PNG, write_png({.width = 30, .height = 20})},
        {IMAGE_TIFF, write_tiff(plain_tiff(30, 20, 3, 2))},
        {IMAGE_WEBP, lossless_webp(30, 20, pixels)},
        {IMAGE_GIF, write_gif({.width = 30, .height = 20, .frames = {{.indices = {0}}}})},
    };
    for (const auto& [type, picture] : pictures) {
        vexa_set_string(&vexa_file_type, nullptr);
        scripted::set_picture(picture);
        EXPECT_EQ(examine_file(), 0) << type;
        EXPECT_EQ(image_file_type, type);
        EXPECT_EQ(image_width, 30) << type;
        EXPECT_EQ(image_height, 20) << type;
        EXPECT_EQ(image_buffer_height, 32) << type;
    }
}

} // namespace
