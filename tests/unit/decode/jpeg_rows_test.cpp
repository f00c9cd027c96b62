// The optimised row loop against a plain version of the rules: the whole frame buffer, byte for
// byte, for every block size and sampling, with different previous contents of the buffer.
#include <algorithm>
#include <csignal>
#include <cstddef>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/decode/jpeg.h"
#include "bin/decode/jpeg_rows.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "tests/support/caught_abort.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_literal.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/scripted_platform.h"

using namespace jpeg_writer;
using testing::KilledBySignal;

namespace {

constexpr unsigned char sentinel = 0xA5;
constexpr factors luma_factors[] = {{1, 1}, {2, 1}, {1, 2}, {2, 2}};

std::string name_of(const picture& what)
{
    return std::to_string(what.width) + "x" + std::to_string(what.height) + " luma " +
           std::to_string(what.sampling[0].h) + "x" + std::to_string(what.sampling[0].v) +
           " block " + std::to_string(what.block_size);
}

class JpegRows : public jpeg_test {
protected:
    static int decode_any()
    {
        return image_is_monochrome != 0 ? full_decode_jpeg_raw_grayscale()
                                        : full_decode_jpeg_raw_yuv();
    }

    void expect_drawn_by_rules(const file_bytes& file, const std::string& name)
    {
        reset_for_jpeg();
        open(file, sentinel);
        EXPECT_EQ(decode(decode_any), 0) << name;
        EXPECT_TRUE(allocation() == draw_literally(file, {.before = sentinel})) << name;
        // Once more with other previous contents, which must make no difference.
        reset_for_jpeg();
        open(file);
        EXPECT_EQ(decode(decode_any), 0) << name;
        EXPECT_TRUE(allocation() == draw_literally(file)) << name;
    }

    void expect_drawn_by_rules(const picture& what)
    {
        expect_drawn_by_rules(write(what), name_of(what));
    }
};

TEST_F(JpegRows, EverySmallWidthAndSampling)
{
    for (const factors luma : luma_factors) {
        for (int width = 1; width <= 50; ++width) {
            expect_drawn_by_rules(ycbcr(width, 20, luma));
        }
    }
    for (int width = 1; width <= 50; ++width) {
        expect_drawn_by_rules(grey(width, 20));
    }
}

TEST_F(JpegRows, EverySmallHeightAndSampling)
{
    for (const factors luma : luma_factors) {
        for (int height = 1; height <= 100; ++height) {
            expect_drawn_by_rules(ycbcr(17, height, luma));
        }
    }
    for (int height = 1; height <= 140; ++height) {
        expect_drawn_by_rules(grey(17, height));
    }
}

TEST_F(JpegRows, EveryCodingProcessOfTheLibrary)
{
    picture what = ycbcr(71, 53, {2, 2});
    what.progressive = true;
    expect_drawn_by_rules(what);
    what.arithmetic = true;
    expect_drawn_by_rules(what);
    what.progressive = false;
    expect_drawn_by_rules(what);
    what.arithmetic = false;
    what.restart_interval = 3;
    expect_drawn_by_rules(what);
    what.separate_scans = true;
    expect_drawn_by_rules(what);
}

TEST_F(JpegRows, GreyWithItsOwnFactors)
{
    for (const factors f : {factors{2, 2}, factors{1, 2}, factors{4, 1}, factors{3, 2}}) {
        for (const int height : {1, 8, 9, 24, 33, 70}) {
            picture what = grey(37, height);
            what.sampling = {f};
            expect_drawn_by_rules(what);
        }
    }
}

TEST_F(JpegRows, DamagedScanIsDrawnAsTheLibraryDeliversIt)
{
    const file_bytes file = write(ycbcr(71, 53, {2, 2}));
    const size_t scan = find_marker(file, 0xDA);
    for (size_t size = scan + 14; size < file.size(); size += 97) {
        expect_drawn_by_rules(first_bytes(file, size), "cut at " + std::to_string(size));
    }
}

TEST_F(JpegRows, WidestPicture)
{
    expect_drawn_by_rules(ycbcr(16384, 8, {2, 2}));
    expect_drawn_by_rules(grey(16384, 8));
    expect_drawn_by_rules(grey(8, 16384));
}

// --- block sizes other than 8 -------------------------------------------------------------------

// True when the buffer has enough rows left for every row group.
bool groups_fit(const picture& what)
{
    const int lines = what.sampling[0].v * what.block_size;
    const int buffer = (what.height + 31) / 32 * 32;
    const int last = (what.height - 1) / lines * lines;
    return last + lines <= buffer;
}

TEST_F(JpegRows, BlocksOfEverySizeStayInsideTheirPlane)
{
    for (int block = 1; block <= 16; ++block) {
        for (const factors luma : luma_factors) {
            for (const int width : {1, 16, 17, 33, 48}) {
                picture what = ycbcr(width, 16, luma);
                what.block_size = block;
                if (luma.v * block <= max_jpeg_group_rows && groups_fit(what)) {
                    expect_drawn_by_rules(what);
                }
            }
        }
        for (const int width : {1, 16, 17, 33, 48}) {
            picture what = grey(width, 50);
            what.block_size = block;
            if (groups_fit(what)) {
                expect_drawn_by_rules(what);
            }
        }
    }
}

TEST_F(JpegRows, WideBlocksAtTheWidestPicture)
{
    for (const int block : {3, 7, 13, 15}) {
        picture what = grey(16384, block);
        what.block_size = block;
        expect_drawn_by_rules(what);
    }
}

// --- row groups that are too high ---------------------------------------------------------------

TEST_F(JpegRows, GreyGroupsOf24And32RowsBreakAnInvariant)
{
    for (const int factor : {3, 4}) {
        for (const int height : {1, 40, 100}) {
            reset_for_jpeg();
            file_bytes file = write(grey(50, height));
            set_sampling(file, 0, {1, factor});
            open(file);
            EXPECT_EXIT(decode_any(), KilledBySignal(SIGABRT),
                        "full_decode_jpeg_raw_grayscale: Assertion `irem <= 16' failed.\n$");
        }
    }
}

TEST_F(JpegRows, LargeBlocksWithVerticalSubsamplingBreakAnInvariant)
{
    for (int block = 9; block <= 16; ++block) {
        for (const factors luma : {factors{1, 2}, factors{2, 2}}) {
            reset_for_jpeg();
            picture what = ycbcr(50, 40, luma);
            what.block_size = block;
            open(write(what));
            EXPECT_EXIT(full_decode_jpeg_raw_yuv(), KilledBySignal(SIGABRT),
                        "full_decode_jpeg_raw_yuv: Assertion `irem <= 16' failed.\n$")
                << name_of(what);
        }
    }
}

// Surplus rows are not drawn: nothing changes below the band's first 16 rows.
TEST_F(JpegRows, SurplusRowsAreNotDrawn)
{
    file_bytes file = write(grey(50, 100));
    set_sampling(file, 0, {1, 4});
    open(file, sentinel);
    static constexpr const char* wanted[] = {"Assertion `irem <= 16' failed.\n"};
    ASSERT_TRUE(aborts_as_wanted([] { decode_any(); }, wanted));
    const std::vector<unsigned char> all = allocation();
    const auto first_surplus = all.begin() + static_cast<std::ptrdiff_t>(16 * image_stride_Y);
    EXPECT_NE(all[15 * image_stride_Y], sentinel); // the row above them is drawn
    EXPECT_TRUE(
        std::all_of(first_surplus, all.end(), [](unsigned char byte) { return byte == sentinel; }));
}

// --- too few rows left --------------------------------------------------------------------------

TEST_F(JpegRows, GroupLargerThanTheRowsLeftEndsTheProcess)
{
    picture what = ycbcr(32, 32, {1, 1});
    what.block_size = 3;
    open(write(what));
    EXPECT_EXIT(
        full_decode_jpeg_raw_yuv(), KilledBySignal(SIGABRT),
        "^JPEGLIB error exit attempted \\(code [0-9]+: 'Buffer passed to JPEG library is too "
        "small'\\)\nUnexpected longjmp from JPEGLIB error handler\n$");
}

// --- bands that stay black ----------------------------------------------------------------------

TEST_F(JpegRows, StopAtEachGroupLeavesTheBandBlackBelowIt)
{
    for (const factors luma : luma_factors) {
        const file_bytes file = write(ycbcr(33, 100, luma));
        for (int stop = 1; stop <= 14; ++stop) {
            reset_for_jpeg();
            open(file, sentinel);
            scripted::plan.die_after_idle = stop;
            ASSERT_EQ(decode(decode_any), 0);
            const auto groups = static_cast<size_t>(stop - 1);
            EXPECT_TRUE(allocation() ==
                        draw_literally(file, {.groups = groups, .before = sentinel}))
                << luma.h << "x" << luma.v << " after " << groups;
        }
    }
    const file_bytes file = write(grey(33, 150));
    for (int stop = 1; stop <= 20; ++stop) {
        reset_for_jpeg();
        open(file, sentinel);
        scripted::plan.die_after_idle = stop;
        ASSERT_EQ(decode(decode_any), 0);
        EXPECT_TRUE(allocation() ==
                    draw_literally(file, {.groups = static_cast<size_t>(stop), .before = sentinel}))
            << "after " << stop;
    }
}

} // namespace
