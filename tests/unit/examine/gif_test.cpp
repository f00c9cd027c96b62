#include <algorithm>
#include <cerrno>

#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "platform/settings.h"
#include "tests/support/gif_writer.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

using bytes = std::vector<unsigned char>;

class GifExamination : public ExamineFixture {
protected:
    static int examine_bytes(const bytes& file)
    {
        scripted::set_picture(file);
        return examine_gif_file();
    }

    static int examine(const gif_spec& spec) { return examine_bytes(write_gif(spec)); }
};

TEST_F(GifExamination, ScreenIsReportedAndPublished)
{
    image_chroma_x_shift = image_chroma_y_shift = 1;
    image_has_alpha_channel = image_is_monochrome = 7;
    ASSERT_EQ(examine({.width = 40,
                       .height = 17,
                       .background = 1,
                       .frames = {varied_gif_frame(2, 2, 50), varied_gif_frame(1, 1, 0),
                                  varied_gif_frame(1, 1, 20)}}),
              0);
    EXPECT_EQ(printed(), "GIF: Screen is 40 x 17 colorres=8 bgcolor=1 ImageCount=3\n");
    EXPECT_EQ(image_width, 40);
    EXPECT_EQ(image_height, 17);
    EXPECT_EQ(image_buffer_height, 32);
    EXPECT_EQ(image_chroma_x_shift, 0);
    EXPECT_EQ(image_chroma_y_shift, 0);
    EXPECT_EQ(image_has_alpha_channel, 1);
    EXPECT_EQ(image_is_monochrome, 0);
    EXPECT_EQ(image_decoded_frames, 3U);
    EXPECT_EQ(image_mapping_total, 80U);
    EXPECT_TRUE(image_mapping_points.empty());
    EXPECT_NE(gif_image, nullptr);
}

TEST_F(GifExamination, AlphaPlaneExistsWithoutATransparentColour)
{
    ASSERT_EQ(examine({.frames = {{.indices = {0}}}}), 0);
    EXPECT_EQ(image_has_alpha_channel, 1);
}

TEST_F(GifExamination, SizesAreNotLimited)
{
    ASSERT_EQ(examine({.width = 65535, .height = 65535, .frames = {{.indices = {0}}}}), 0);
    EXPECT_EQ(image_width, 65535);
    EXPECT_EQ(image_buffer_height, 65536);
}

TEST_F(GifExamination, EmptyScreenIsRefusedWhateverItsImages)
{
    for (const auto& [width, height] : {std::pair{0U, 5U}, std::pair{5U, 0U}}) {
        EXPECT_EQ(
            examine({.width = width, .height = height, .frames = {varied_gif_frame(3, 3, 0)}}), 1);
        EXPECT_EQ(printed(), "GIF: Screen is " + std::to_string(width) + " x " +
                                 std::to_string(height) +
                                 " colorres=8 bgcolor=0 ImageCount=1\nInvalid GIF state\n");
        EXPECT_EQ(gif_image, nullptr);
    }
}

TEST_F(GifExamination, NoImageIsRefused)
{
    EXPECT_EQ(examine({.width = 4, .height = 4}), 1);
    EXPECT_EQ(printed(), "GIF reading error (?)\n"
                         "GIF: Screen is 4 x 4 colorres=8 bgcolor=0 ImageCount=0\n"
                         "Invalid GIF state\n");
    EXPECT_EQ(gif_image, nullptr);
}

TEST_F(GifExamination, InvalidGifIsRefused)
{
    EXPECT_EQ(examine_bytes(bytes(100, 'x')), 1);
    EXPECT_EQ(printed(), "Cannot open GIF\n");
    EXPECT_EQ(gif_image, nullptr);
}

TEST_F(GifExamination, EmptyFileIsRefused)
{
    EXPECT_EQ(examine_bytes(bytes{}), 1);
    EXPECT_EQ(printed(), "Cannot open GIF\n");
}

TEST_F(GifExamination, NoFileHandle)
{
    scripted::plan.file_handle_fails = true;
    EXPECT_EQ(examine({.frames = {{.indices = {0}}}}), 1);
    EXPECT_EQ(printed(), "Unable to get file handle\n");
}

TEST_F(GifExamination, SecondExaminationIsABugAndKeepsTheFirst)
{
    ASSERT_EQ(examine({.frames = {{.indices = {0}}}}), 0);
    printed();
    GifFileType* const image = gif_image;
    EXPECT_EQ(examine_gif_file(), 1);
    EXPECT_EQ(printed(), "BUG: examine_gif_file() when already opened\n");
    EXPECT_EQ(gif_image, image);
}

TEST_F(GifExamination, MissingTrailerIsAWarningOnly)
{
    ASSERT_EQ(examine({.frames = {varied_gif_frame(2, 2, 5)}, .trailer = false}), 0);
    EXPECT_EQ(printed(), "GIF reading error (?)\n"
                         "GIF: Screen is 1 x 1 colorres=8 bgcolor=0 ImageCount=1\n");
    EXPECT_EQ(image_mapping_total, 5U);
}

TEST_F(GifExamination, BrokenLastFrameKeepsItsSlotWithoutARaster)
{
    ASSERT_EQ(examine({.frames = {varied_gif_frame(2, 2, 50), {.width = 0, .height = 4}}}), 0);
    EXPECT_EQ(image_decoded_frames, 2U);
    EXPECT_EQ(image_mapping_total, 60U); // the broken frame has no control block: 10
    EXPECT_NE(gif_image->SavedImages[0].RasterBits, nullptr);
    EXPECT_EQ(gif_image->SavedImages[1].RasterBits, nullptr);
    EXPECT_EQ(printed().substr(0, 22), "GIF reading error (?)\n");
}

TEST_F(GifExamination, RasterWithoutMemoryIsAReadingError)
{
    failing_calls::plan.calloc = 1;
    ASSERT_EQ(examine({.frames = {varied_gif_frame(2, 2, 5)}}), 0);
    EXPECT_EQ(gif_image->SavedImages[0].RasterBits, nullptr);
    EXPECT_EQ(printed().substr(0, 22), "GIF reading error (?)\n");
}

TEST_F(GifExamination, MissingDataOfAHugeFrameIsAReadingError)
{
    // 46340 x 46340 pixels are claimed, none are present. With one more pixel a side the number of
    // pixels overflows.
    for (const unsigned side : {46340U, 46341U, 65535U}) {
        gif_frame_spec frame = {.width = side, .height = side};
        ASSERT_EQ(examine({.frames = {frame}}), 0);
        EXPECT_EQ(printed().substr(0, 22), "GIF reading error (?)\n");
        EXPECT_EQ(image_decoded_frames, 1U);
        if (side > 46340) {
            EXPECT_EQ(gif_image->SavedImages[0].RasterBits, nullptr);
        }
        free_all_gif();
    }
}

TEST_F(GifExamination, MissingRestOfATruncatedFrameIsIndexZero)
{
    gif_spec spec = {.width = 20, .height = 20, .frames = {varied_gif_frame(20, 20, 5)}};
    const bytes expected = spec.frames[0].indices;
    spec.frames[0].indices.resize(210);
    ASSERT_EQ(examine(spec), 0);
    const GifByteType* raster = gif_image->SavedImages[0].RasterBits;
    ASSERT_NE(raster, nullptr);
    EXPECT_TRUE(std::equal(raster, raster + 200, expected.begin()));
    EXPECT_TRUE(std::all_of(raster + 210, raster + 400, [](GifByteType i) { return i == 0; }));
    EXPECT_EQ(printed().substr(0, 22), "GIF reading error (?)\n");
}

TEST_F(GifExamination, InterlacedRowsStayInTheOrderOfTheFile)
{
    gif_frame_spec frame = varied_gif_frame(3, 10, 5);
    frame.interlaced = true;
    ASSERT_EQ(examine({.width = 3, .height = 10, .frames = {frame}}), 0);
    const SavedImage& loaded = gif_image->SavedImages[0];
    EXPECT_TRUE(loaded.ImageDesc.Interlace);
    EXPECT_EQ(bytes(loaded.RasterBits, loaded.RasterBits + 30), frame.indices);
}

TEST_F(GifExamination, FrameBeyondTheScreenIsClipped)
{
    gif_frame_spec frame = varied_gif_frame(5, 9, 5);
    frame.left = 7;
    frame.top = 2;
    frame.interlaced = true;
    ASSERT_EQ(examine({.width = 9, .height = 6, .frames = {frame}}), 0);
    const SavedImage& loaded = gif_image->SavedImages[0];
    EXPECT_EQ(loaded.ImageDesc.Left, 7);
    EXPECT_EQ(loaded.ImageDesc.Top, 2);
    ASSERT_EQ(loaded.ImageDesc.Width, 2);
    ASSERT_EQ(loaded.ImageDesc.Height, 4);
    EXPECT_FALSE(loaded.ImageDesc.Interlace);
    constexpr size_t row_in_file[] = {0, 5, 3, 6}; // of picture rows 0 to 3 of 9
    for (size_t y = 0; y < 4; ++y) {
        EXPECT_EQ(loaded.RasterBits[y * 2], frame.indices[row_in_file[y] * 5]) << y;
        EXPECT_EQ(loaded.RasterBits[y * 2 + 1], frame.indices[row_in_file[y] * 5 + 1]) << y;
    }
}

TEST_F(GifExamination, FrameOutsideTheScreenHasNoRaster)
{
    gif_frame_spec frame = varied_gif_frame(5, 9, 5);
    frame.left = 9;
    ASSERT_EQ(examine({.width = 9, .height = 6, .frames = {frame, varied_gif_frame(9, 6, 7)}}), 0);
    EXPECT_EQ(gif_image->SavedImages[0].RasterBits, nullptr);
    EXPECT_NE(gif_image->SavedImages[1].RasterBits, nullptr);
    EXPECT_EQ(image_mapping_total, 12U);
}

TEST_F(GifExamination, FrameMuchLargerThanTheScreenTakesTheMemoryOfTheScreen)
{
    gif_frame_spec frame = varied_gif_frame(300, 200, 5);
    failing_calls::plan.max_calloc = 40; // less than a row of the frame
    ASSERT_EQ(examine({.width = 4, .height = 10, .frames = {frame}}), 0);
    EXPECT_EQ(printed(), "GIF: Screen is 4 x 10 colorres=8 bgcolor=0 ImageCount=1\n");
    EXPECT_NE(gif_image->SavedImages[0].RasterBits, nullptr);
}

TEST_F(GifExamination, PixelsOffTheScreenAreReadUpToALimit)
{
    const gif_frame_spec honest = {.width = 2000, .height = 100, .all_zero = true};
    const gif_frame_spec absurd = {.width = 25000, .height = 21500, .all_zero = true};
    ASSERT_EQ(examine({.frames = {honest, absurd, honest}}), 0);
    EXPECT_EQ(printed(), "GIF reading error (?)\n"
                         "GIF: Screen is 1 x 1 colorres=8 bgcolor=0 ImageCount=2\n");
    EXPECT_NE(gif_image->SavedImages[1].RasterBits, nullptr); // the visible part has been read
}

// --- frames that cannot or will not be decoded --------------------------------------------------

TEST_F(GifExamination, FramesThatDoNotFitTheBufferAreOnlyCounted)
{
    const gif_spec spec = {.width = 9,
                           .height = 6,
                           .frames = {varied_gif_frame(9, 6, 50), varied_gif_frame(9, 6, 0),
                                      varied_gif_frame(9, 6, 20)}};
    constexpr uint64_t unit = 4 * 16 * 16;
    scripted::plan.allocation_limit = 2 * unit;
    ASSERT_EQ(examine(spec), 0);
    EXPECT_EQ(printed(), "GIF: Screen is 9 x 6 colorres=8 bgcolor=0 ImageCount=3\n");
    EXPECT_EQ(image_decoded_frames, 3U);
    EXPECT_EQ(image_mapping_total, 80U);
    EXPECT_EQ(gif_image->ImageCount, 2);
    EXPECT_EQ(gif_image->ExtensionBlockCount, 0);
}

TEST_F(GifExamination, NothingIsKeptWhenNothingWillBeDecoded)
{
    for (bool* mode : {&vexa_identify_only, &vexa_create_meta}) {
        *mode = true;
        ASSERT_EQ(examine({.width = 2, .height = 2, .frames = {varied_gif_frame(2, 2, 50)}}), 0);
        EXPECT_EQ(gif_image->ImageCount, 0);
        EXPECT_EQ(image_decoded_frames, 1U);
        EXPECT_EQ(image_mapping_total, 50U);
        free_all_gif();
        *mode = false;
    }
}

TEST_F(GifExamination, ErrorInAFrameThatIsNotKeptIsStillFound)
{
    vexa_identify_only = true;
    gif_frame_spec cut = varied_gif_frame(8, 8, 50);
    cut.indices.resize(10);
    ASSERT_EQ(examine({.width = 8, .height = 8, .frames = {varied_gif_frame(8, 8, 50), cut}}), 0);
    EXPECT_EQ(printed(), "GIF reading error (?)\n"
                         "GIF: Screen is 8 x 8 colorres=8 bgcolor=0 ImageCount=2\n");
    EXPECT_EQ(image_mapping_total, 60U);
}

// --- signals, clients, and files that cannot be read --------------------------------------------

TEST_F(GifExamination, SocketIsServedInsideAFrameAndASignalEndsTheExamination)
{
    scripted::plan.clock_step_us = 500; // each clock reading is half a millisecond later
    scripted::plan.die_after_idle = 3;
    EXPECT_EQ(examine({.width = 400, .height = 400, .frames = {varied_gif_frame(400, 400, 5)}}), 1);
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(gif_image, nullptr);
    EXPECT_EQ(scripted::log.idle_rounds, 3U); // of about ten rounds for 160,000 pixels
}

TEST_F(GifExamination, SignalEndsTheExaminationBetweenRecords)
{
    bytes file = gif_start({});
    for (int i = 0; i < 1000; ++i) {
        append_gif_extension(file, 0xFE, {{'h', 'i'}});
    }
    append_gif_frame(file, {.indices = {0}});
    file.push_back(0x3B);
    scripted::plan.clock_step_us = 500;
    scripted::plan.die_after_idle = 2;
    EXPECT_EQ(examine_bytes(file), 1);
    EXPECT_EQ(scripted::log.idle_rounds, 2U);
    EXPECT_EQ(printed(), "");
}

// A frame of one pixel that starts with nothing but clear codes.
bytes file_of_clear_codes(size_t blocks)
{
    // Eight codes of nine bits, each with the value 256.
    constexpr unsigned char codes[] = {0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80};
    constexpr size_t block_bytes = 252; // whole groups of codes
    bytes file = gif_start({});
    file.insert(file.end(), {0x2C, 0, 0, 0, 0, 1, 0, 1, 0, 0, 8});
    for (size_t block = 0; block < blocks; ++block) {
        file.push_back(block_bytes);
        for (size_t i = 0; i < block_bytes; ++i) {
            file.push_back(codes[i % sizeof codes]);
        }
    }
    file.insert(file.end(), {0, 0x3B});
    return file;
}

TEST_F(GifExamination, SocketIsServedInsideAPixelAndASignalEndsTheExamination)
{
    scripted::plan.clock_step_us = 500;
    scripted::plan.die_after_idle = 5;
    EXPECT_EQ(examine_bytes(file_of_clear_codes(400)), 1);
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(scripted::log.idle_rounds, 5U); // of a dozen rounds for 100,000 bytes
}

TEST_F(GifExamination, SocketIsServedEveryHalfMillisecondAtMost)
{
    // Two clock readings per step, hence a round every 25 steps, and one at the start.
    scripted::plan.clock_step_us = 10;
    ASSERT_EQ(examine({.width = 400, .height = 400, .frames = {varied_gif_frame(400, 400, 5)}}), 0);
    EXPECT_LE(scripted::log.idle_rounds, 1U);
}

TEST_F(GifExamination, InterruptedReadIsRetried)
{
    failing_calls::plan.read = 1;
    failing_calls::plan.read_errno = EINTR;
    ASSERT_EQ(examine({.width = 4, .height = 4, .frames = {varied_gif_frame(4, 4, 5)}}), 0);
    EXPECT_EQ(printed(), "GIF: Screen is 4 x 4 colorres=8 bgcolor=0 ImageCount=1\n");
}

TEST_F(GifExamination, ShortReadsAreContinued)
{
    failing_calls::plan.max_read = 3;
    ASSERT_EQ(examine({.width = 4, .height = 4, .frames = {varied_gif_frame(4, 4, 5)}}), 0);
    EXPECT_EQ(printed(), "GIF: Screen is 4 x 4 colorres=8 bgcolor=0 ImageCount=1\n");
}

TEST_F(GifExamination, DiskErrorIsReportedOnceAndEndsTheFile)
{
    failing_calls::plan.max_read = 400;
    failing_calls::plan.read = 2;
    failing_calls::plan.read_errno = EIO;
    ASSERT_EQ(examine({.width = 40, .height = 40, .frames = {varied_gif_frame(40, 40, 5)}}), 0);
    EXPECT_EQ(printed(), "Error while reading the picture: Input/output error\n"
                         "GIF reading error (?)\n"
                         "GIF: Screen is 40 x 40 colorres=8 bgcolor=0 ImageCount=1\n");
    EXPECT_NE(gif_image->SavedImages[0].RasterBits[100], 0);
    EXPECT_EQ(gif_image->SavedImages[0].RasterBits[1500], 0);
}

TEST_F(GifExamination, CleanUpMayRunTwice)
{
    ASSERT_EQ(examine({.frames = {{.indices = {0}}}}), 0);
    free_all_gif();
    EXPECT_EQ(gif_image, nullptr);
    free_all_gif();
    EXPECT_EQ(gif_image, nullptr);
}

} // namespace
