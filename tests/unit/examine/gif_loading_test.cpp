// Loading the list of frames, and the display settings of each frame.
#include <algorithm>
#include <optional>
#include <random>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "bin/examine/gif_loading.h"
#include "tests/support/gif_writer.h"

namespace {

using bytes = std::vector<unsigned char>;

class GifControl : public testing::Test {
protected:
    // A frame with these blocks, which the fixture owns.
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

TEST_F(GifControl, FrameWithoutControlBlockHasDelayTen)
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

TEST_F(GifControl, LastValidBlockCountsAndOthersAreSkipped)
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

    // Only the meaning of the blocks is kept, not the blocks themselves.
    static void expect_same_control(const SavedImage& frame, const SavedImage& expected)
    {
        EXPECT_LE(frame.ExtensionBlockCount, 2);
        const gif_frame_control control = read_gif_frame_control(frame);
        EXPECT_EQ(control.delay, read_gif_frame_control(expected).delay);
        EXPECT_EQ(control.disposal, read_gif_frame_control(expected).disposal);
        EXPECT_EQ(transparent_index(frame), transparent_index(expected));
    }

    // The library keeps whole rows, `frame` only the visible part of them.
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
        append_gif_frame(file, varied_gif_frame(9, 12, 7));
        append_gif_extension(file, 0xFE, {{'h', 'i'}});
        gif_frame_spec interlaced = varied_gif_frame(5, 11, 0);
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
    append_gif_frame(file, varied_gif_frame(9, 12, 7));
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
        gif_frame_spec frame = varied_gif_frame(3, 3, 0);
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
        gif_frame_spec frame = varied_gif_frame(2, height, 3);
        frame.interlaced = true;
        compare(write_gif({.width = 2, .height = height, .frames = {frame}}));
    }
}

TEST_F(GifLoading, FileTruncatedAtEveryByte)
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
