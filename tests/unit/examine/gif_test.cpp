#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

#include "bin/examine/gif.h"
#include "bin/examine/gif_loading.h"
#include "bin/examine/image_state.h"
#include "platform/media_item.h"
#include "tests/support/gif_writer.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

using bytes = std::vector<unsigned char>;

gif_frame_spec frame_of(unsigned width, unsigned height, unsigned delay)
{
    gif_frame_spec frame = {.width = width, .height = height};
    frame.control = gif_control_spec{.delay = delay};
    for (unsigned i = 0; i < width * height; ++i) {
        frame.indices.push_back(static_cast<unsigned char>(i * 7 + 1));
    }
    return frame;
}

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
                       .frames = {frame_of(2, 2, 50), frame_of(1, 1, 0), frame_of(1, 1, 20)}}),
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

TEST_F(GifExamination, AlphaPlaneEvenWithoutATransparentColour)
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

TEST_F(GifExamination, EmptyScreenIsRefusedWhateverItsImagesAre)
{
    for (const auto& [width, height] : {std::pair{0U, 5U}, std::pair{5U, 0U}}) {
        EXPECT_EQ(examine({.width = width, .height = height, .frames = {frame_of(3, 3, 0)}}), 1);
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

TEST_F(GifExamination, FileThatIsNoGifIsRefused)
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
    ASSERT_EQ(examine({.frames = {frame_of(2, 2, 5)}, .trailer = false}), 0);
    EXPECT_EQ(printed(), "GIF reading error (?)\n"
                         "GIF: Screen is 1 x 1 colorres=8 bgcolor=0 ImageCount=1\n");
    EXPECT_EQ(image_mapping_total, 5U);
}

TEST_F(GifExamination, BrokenLastFrameKeepsItsSlotWithoutARaster)
{
    ASSERT_EQ(examine({.frames = {frame_of(2, 2, 50), {.width = 0, .height = 4}}}), 0);
    EXPECT_EQ(image_decoded_frames, 2U);
    EXPECT_EQ(image_mapping_total, 60U); // the broken one has no control: 10
    EXPECT_NE(gif_image->SavedImages[0].RasterBits, nullptr);
    EXPECT_EQ(gif_image->SavedImages[1].RasterBits, nullptr);
    EXPECT_EQ(printed().substr(0, 22), "GIF reading error (?)\n");
}

TEST_F(GifExamination, RasterWithoutMemoryIsAReadingError)
{
    failing_calls::plan.calloc = 1;
    ASSERT_EQ(examine({.frames = {frame_of(2, 2, 5)}}), 0);
    EXPECT_EQ(gif_image->SavedImages[0].RasterBits, nullptr);
    EXPECT_EQ(printed().substr(0, 22), "GIF reading error (?)\n");
}

TEST_F(GifExamination, FrameOfGigabytesThatIsNotThereIsAReadingError)
{
    // 46340 x 46340 indices claimed, none there; one pixel more on a side is beyond what can be
    // counted.
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

TEST_F(GifExamination, UnreadRestOfACutFrameIsIndexZero)
{
    gif_spec spec = {.width = 20, .height = 20, .frames = {frame_of(20, 20, 5)}};
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
    gif_frame_spec frame = frame_of(3, 10, 5);
    frame.interlaced = true;
    ASSERT_EQ(examine({.width = 3, .height = 10, .frames = {frame}}), 0);
    const SavedImage& loaded = gif_image->SavedImages[0];
    EXPECT_TRUE(loaded.ImageDesc.Interlace);
    EXPECT_EQ(bytes(loaded.RasterBits, loaded.RasterBits + 30), frame.indices);
}

TEST_F(GifExamination, FrameThatJutsOutIsKeptAsFarAsItIsSeen)
{
    gif_frame_spec frame = frame_of(5, 9, 5);
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

TEST_F(GifExamination, FrameThatIsNotSeenHasNoRaster)
{
    gif_frame_spec frame = frame_of(5, 9, 5);
    frame.left = 9;
    ASSERT_EQ(examine({.width = 9, .height = 6, .frames = {frame, frame_of(9, 6, 7)}}), 0);
    EXPECT_EQ(gif_image->SavedImages[0].RasterBits, nullptr);
    EXPECT_NE(gif_image->SavedImages[1].RasterBits, nullptr);
    EXPECT_EQ(image_mapping_total, 12U);
}

TEST_F(GifExamination, FrameMuchLargerThanTheScreenTakesTheScreensMemory)
{
    gif_frame_spec frame = frame_of(300, 200, 5);
    failing_calls::plan.largest_calloc = 40; // a row of the frame has more
    ASSERT_EQ(examine({.width = 4, .height = 10, .frames = {frame}}), 0);
    EXPECT_EQ(printed(), "GIF: Screen is 4 x 10 colorres=8 bgcolor=0 ImageCount=1\n");
    EXPECT_NE(gif_image->SavedImages[0].RasterBits, nullptr);
}

// --- what cannot or will not be decoded ---------------------------------------------------------

TEST_F(GifExamination, FramesThatTheBufferCannotHoldAreCountedOnly)
{
    const gif_spec spec = {.width = 9,
                           .height = 6,
                           .frames = {frame_of(9, 6, 50), frame_of(9, 6, 0), frame_of(9, 6, 20)}};
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
        ASSERT_EQ(examine({.width = 2, .height = 2, .frames = {frame_of(2, 2, 50)}}), 0);
        EXPECT_EQ(gif_image->ImageCount, 0);
        EXPECT_EQ(image_decoded_frames, 1U);
        EXPECT_EQ(image_mapping_total, 50U);
        free_all_gif();
        *mode = false;
    }
}

TEST_F(GifExamination, FaultInAFrameThatIsNotKeptIsStillFound)
{
    vexa_identify_only = true;
    gif_frame_spec cut = frame_of(8, 8, 50);
    cut.indices.resize(10);
    ASSERT_EQ(examine({.width = 8, .height = 8, .frames = {frame_of(8, 8, 50), cut}}), 0);
    EXPECT_EQ(printed(), "GIF reading error (?)\n"
                         "GIF: Screen is 8 x 8 colorres=8 bgcolor=0 ImageCount=2\n");
    EXPECT_EQ(image_mapping_total, 60U);
}

// --- signals, clients, and files that cannot be read --------------------------------------------

TEST_F(GifExamination, SocketIsServedInsideAFrameAndASignalEndsItThere)
{
    scripted::plan.clock_step_us = 500; // every look at the clock is half a millisecond later
    scripted::plan.die_after_idle = 3;
    EXPECT_EQ(examine({.width = 400, .height = 400, .frames = {frame_of(400, 400, 5)}}), 1);
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(gif_image, nullptr);
    EXPECT_EQ(scripted::log.idle_rounds, 3U); // of about ten in 160,000 pixels
}

TEST_F(GifExamination, SignalEndsItBetweenRecords)
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

TEST_F(GifExamination, SocketIsServedEveryHalfMillisecondAtMost)
{
    scripted::plan.clock_step_us = 10; // two looks a turn: 25 turns, and the one at the start
    ASSERT_EQ(examine({.width = 400, .height = 400, .frames = {frame_of(400, 400, 5)}}), 0);
    EXPECT_LE(scripted::log.idle_rounds, 1U);
}

TEST_F(GifExamination, InterruptedReadIsTriedAgain)
{
    failing_calls::plan.read = 1;
    failing_calls::plan.read_errno = EINTR;
    ASSERT_EQ(examine({.width = 4, .height = 4, .frames = {frame_of(4, 4, 5)}}), 0);
    EXPECT_EQ(printed(), "GIF: Screen is 4 x 4 colorres=8 bgcolor=0 ImageCount=1\n");
}

TEST_F(GifExamination, ShortReadsAreGoneOnWith)
{
    failing_calls::plan.read_most = 3;
    ASSERT_EQ(examine({.width = 4, .height = 4, .frames = {frame_of(4, 4, 5)}}), 0);
    EXPECT_EQ(printed(), "GIF: Screen is 4 x 4 colorres=8 bgcolor=0 ImageCount=1\n");
}

TEST_F(GifExamination, DiskErrorIsToldOnceAndTheFileEndsThere)
{
    failing_calls::plan.read_most = 400;
    failing_calls::plan.read = 2;
    failing_calls::plan.read_errno = EIO;
    ASSERT_EQ(examine({.width = 40, .height = 40, .frames = {frame_of(40, 40, 5)}}), 0);
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

// --- timing -------------------------------------------------------------------------------------

class GifControl : public testing::Test {
protected:
    // A frame whose blocks live as long as the fixture.
    SavedImage frame_with(const std::vector<std::pair<int, bytes>>& blocks)
    {
        contents_ = blocks;
        blocks_.clear();
        for (auto& [function, content] : contents_) {
            blocks_.push_back({static_cast<int>(content.size()), content.data(), function});
        }
        SavedImage frame = {};
        frame.ExtensionBlockCount = static_cast<int>(blocks_.size());
        frame.ExtensionBlocks = blocks_.data();
        return frame;
    }

private:
    std::vector<std::pair<int, bytes>> contents_;
    std::vector<ExtensionBlock> blocks_;
};

TEST_F(GifControl, FrameWithoutOneHasDelayTen)
{
    const gif_frame_control control = read_gif_frame_control(frame_with({}));
    EXPECT_EQ(control.disposal, 0U);
    EXPECT_EQ(control.delay, 10U);
}

TEST_F(GifControl, DelayIsLittleEndianAndZeroOrOneIsTen)
{
    const std::pair<unsigned, unsigned> delays[] = {{0, 10}, {1, 10},    {2, 2},
                                                    {3, 3},  {256, 256}, {65535, 65535}};
    for (const auto& [stored, expected] : delays) {
        const bytes data = {0, static_cast<unsigned char>(stored),
                            static_cast<unsigned char>(stored >> 8), 0};
        EXPECT_EQ(read_gif_frame_control(frame_with({{0xF9, data}})).delay, expected);
    }
}

TEST_F(GifControl, DisposalIsThreeBits)
{
    for (unsigned disposal = 0; disposal < 8; ++disposal) {
        const bytes data = {static_cast<unsigned char>(0xE3 | disposal << 2), 5, 0, 0};
        EXPECT_EQ(read_gif_frame_control(frame_with({{0xF9, data}})).disposal, disposal);
    }
}

TEST_F(GifControl, LastBlockWinsAndOthersAreGoneOver)
{
    const auto control = read_gif_frame_control(frame_with({{0xF9, {4, 7, 0, 0}},
                                                            {0xF9, {8, 9, 0, 0, 0}},
                                                            {0xFE, {12, 30, 0, 0}},
                                                            {0xF9, {12, 30, 0}},
                                                            {0, {12, 30, 0, 0}}}));
    EXPECT_EQ(control.disposal, 2U);
    EXPECT_EQ(control.delay, 9U);
}

// --- the same list as the library's own loader --------------------------------------------------

class GifLoading : public testing::Test {
protected:
    GifFileType* open(const bytes& file)
    {
        const int fd = memfd_create("gif", MFD_CLOEXEC);
        EXPECT_EQ(write(fd, file.data(), file.size()), static_cast<ssize_t>(file.size()));
        lseek(fd, 0, SEEK_SET);
        return DGifOpenFileHandle(fd, nullptr);
    }

    static std::optional<int> transparent_index(const SavedImage& frame)
    {
        std::optional<int> found;
        for (int i = 0; i < frame.ExtensionBlockCount; ++i) {
            const ExtensionBlock& block = frame.ExtensionBlocks[i];
            if (block.Function == GRAPHICS_EXT_FUNC_CODE && block.ByteCount > 3 &&
                (block.Bytes[0] & 1) != 0) {
                found = block.Bytes[3];
            }
        }
        return found;
    }

    // Of the blocks only what they say is kept.
    static void expect_same_control(const SavedImage& frame, const SavedImage& expected)
    {
        EXPECT_LE(frame.ExtensionBlockCount, 2);
        const gif_frame_control control = read_gif_frame_control(frame);
        EXPECT_EQ(control.delay, read_gif_frame_control(expected).delay);
        EXPECT_EQ(control.disposal, read_gif_frame_control(expected).disposal);
        EXPECT_EQ(transparent_index(frame), transparent_index(expected));
    }

    // The library's rows are those of the picture.
    static void expect_same_visible_part(const SavedImage& frame, const SavedImage& expected)
    {
        EXPECT_FALSE(frame.ImageDesc.Interlace);
        for (int y = 0; y < frame.ImageDesc.Height; ++y) {
            const GifByteType* row = frame.RasterBits + ptrdiff_t{y} * frame.ImageDesc.Width;
            EXPECT_TRUE(std::equal(row, row + frame.ImageDesc.Width,
                                   expected.RasterBits + ptrdiff_t{y} * expected.ImageDesc.Width));
        }
    }

    static void expect_same_rows(const SavedImage& frame, const SavedImage& expected)
    {
        if (frame.RasterBits == nullptr) {
            return;
        }
        if (frame.ImageDesc.Width != expected.ImageDesc.Width ||
            frame.ImageDesc.Height != expected.ImageDesc.Height) {
            expect_same_visible_part(frame, expected);
            return;
        }
        const int width = frame.ImageDesc.Width;
        const int height = frame.ImageDesc.Height;
        int row = 0;
        const auto expect_row = [&](int picture_row) {
            const GifByteType* file_row = frame.RasterBits + ptrdiff_t{row} * width;
            EXPECT_TRUE(std::equal(file_row, file_row + width,
                                   expected.RasterBits + ptrdiff_t{picture_row} * width));
            ++row;
        };
        if (!frame.ImageDesc.Interlace) {
            for (int y = 0; y < height; ++y) {
                expect_row(y);
            }
            return;
        }
        for (const auto& [first, step] : {std::pair{0, 8}, {4, 8}, {2, 4}, {1, 2}}) {
            for (int y = first; y < height; y += step) {
                expect_row(y);
            }
        }
    }

    static void expect_same_frame(const SavedImage& frame, const SavedImage& expected,
                                  const GifFileType& gif)
    {
        const GifImageDesc& whole = expected.ImageDesc;
        const int width = std::clamp(gif.SWidth - whole.Left, 0, whole.Width);
        const int height = std::clamp(gif.SHeight - whole.Top, 0, whole.Height);
        const bool seen = width > 0 && height > 0;
        EXPECT_EQ(frame.ImageDesc.Left, expected.ImageDesc.Left);
        EXPECT_EQ(frame.ImageDesc.Top, expected.ImageDesc.Top);
        EXPECT_EQ(frame.ImageDesc.Width, seen ? width : whole.Width);
        EXPECT_EQ(frame.ImageDesc.Height, seen ? height : whole.Height);
        EXPECT_EQ(frame.ImageDesc.ColorMap == nullptr, expected.ImageDesc.ColorMap == nullptr);
        EXPECT_EQ(frame.RasterBits == nullptr, expected.RasterBits == nullptr || !seen);
        expect_same_control(frame, expected);
    }

    void compare(const bytes& file)
    {
        GifFileType* ours = open(file);
        GifFileType* theirs = open(file);
        ASSERT_EQ(ours == nullptr, theirs == nullptr);
        if (ours == nullptr) {
            return;
        }
        gif_contents found = {};
        const int result = load_gif(ours, UINT64_MAX, &found);
        EXPECT_EQ(result, DGifSlurp(theirs));
        ASSERT_EQ(ours->ImageCount, theirs->ImageCount);
        uint64_t running_time = 0;
        for (int i = 0; i < ours->ImageCount; ++i) {
            running_time += read_gif_frame_control(theirs->SavedImages[i]).delay;
            expect_same_frame(ours->SavedImages[i], theirs->SavedImages[i], *theirs);
            const bool complete = result == GIF_OK || i + 1 < ours->ImageCount;
            if (complete) {
                expect_same_rows(ours->SavedImages[i], theirs->SavedImages[i]);
            }
        }
        EXPECT_EQ(found.frames, static_cast<uint64_t>(theirs->ImageCount));
        EXPECT_EQ(found.running_time, running_time);
        EXPECT_LE(ours->ExtensionBlockCount, 2);
        DGifCloseFile(ours, nullptr);
        DGifCloseFile(theirs, nullptr);
    }

    static bytes animation()
    {
        bytes file = gif_start({.width = 9, .height = 12});
        append_gif_extension(file, 0xFF, {{'N', 'E', 'T'}, {1, 2, 3}, {4}});
        append_gif_frame(file, frame_of(9, 12, 7));
        append_gif_extension(file, 0xFE, {{'h', 'i'}});
        gif_frame_spec interlaced = frame_of(5, 11, 0);
        interlaced.interlaced = true;
        interlaced.palette = {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}, {10, 11, 12}};
        append_gif_frame(file, interlaced);
        append_gif_frame(file, {.left = 3, .top = 4, .indices = {1}});
        append_gif_extension(file, 0x01, {{9, 9}});
        file.push_back(0x3B);
        return file;
    }
};

TEST_F(GifLoading, WholeAnimation)
{
    compare(animation());
}

TEST_F(GifLoading, ExtensionWithoutData)
{
    bytes file = gif_start({.width = 9, .height = 12});
    append_gif_extension(file, 0xFE, {});
    append_gif_frame(file, frame_of(9, 12, 7));
    file.push_back(0x3B);
    compare(file);
}

TEST_F(GifLoading, SeveralControlsOfOneFrame)
{
    std::mt19937 random(5);
    for (int round = 0; round < 200; ++round) {
        bytes file = gif_start({.width = 3, .height = 3});
        for (auto blocks = random() % 6; blocks > 0; --blocks) {
            bytes block(3 + random() % 4);
            std::generate(block.begin(), block.end(),
                          [&] { return static_cast<unsigned char>(random() % 16); });
            append_gif_extension(file, random() % 4 == 0 ? 0xFE : 0xF9, {block, block});
        }
        gif_frame_spec frame = frame_of(3, 3, 0);
        frame.control.reset();
        append_gif_frame(file, frame);
        append_gif_frame(file, frame);
        file.push_back(0x3B);
        compare(file);
    }
}

TEST_F(GifLoading, InterlacedFramesOfEveryHeight)
{
    for (unsigned height = 1; height <= 20; ++height) {
        gif_frame_spec frame = frame_of(2, height, 3);
        frame.interlaced = true;
        compare(write_gif({.width = 2, .height = height, .frames = {frame}}));
    }
}

TEST_F(GifLoading, CutAtEveryByte)
{
    const bytes whole = animation();
    for (size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        compare(bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)));
    }
}

TEST_F(GifLoading, ChangedBytes)
{
    std::mt19937 random(11);
    const bytes whole = animation();
    for (int round = 0; round < 3000; ++round) {
        SCOPED_TRACE(round);
        bytes file = whole;
        for (auto changes = 1 + random() % 3; changes > 0; --changes) {
            file[random() % file.size()] = static_cast<unsigned char>(random() % 256);
        }
        compare(file);
    }
}

} // namespace
