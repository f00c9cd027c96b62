#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/decode/jpeg.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"
#include "platform/run_state.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_literal.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/scripted_platform.h"

using namespace jpeg_writer;
using scripted::status_line;
using testing::EndsWith;
using testing::KilledBySignal;

namespace {

constexpr unsigned char sentinel = 0xA5; // the contents of the buffer before a decoder runs

class JpegRaw : public jpeg_test {
protected:
    unsigned char luma(uint64_t x, uint64_t y) const
    {
        return scripted::buffer()[image_offset_Y + y * image_stride_Y + x];
    }

    unsigned char u(uint64_t x, uint64_t y) const
    {
        return scripted::buffer()[image_offset_U + y * image_stride_U + x];
    }

    unsigned char v(uint64_t x, uint64_t y) const
    {
        return scripted::buffer()[image_offset_V + y * image_stride_V + x];
    }

    // Calls `event` in the n-th idle round.
    void in_idle_round(uint64_t n, const std::function<void()>& event)
    {
        scripted::plan.on_idle = [n, event] {
            if (scripted::log.idle_rounds == n) {
                event();
            }
        };
    }

    // Expects the frame buffer that results when the rules draw only `groups` row groups.
    void expect_stopped_after(const file_bytes& file, size_t groups, bool one_more = false)
    {
        EXPECT_EQ(allocation(), draw_literally(file, {groups, one_more, sentinel}));
        EXPECT_EQ(scripted::log.status.back(), (status_line{100, ""}));
    }
};

picture flat(picture what, const std::vector<unsigned char>& samples)
{
    what.quality = 100;
    what.sample = [samples](int component, int, int) {
        return samples[static_cast<size_t>(component)];
    };
    return what;
}

// --- samples ------------------------------------------------------------------------------------

TEST_F(JpegRaw, FullRangeBecomesVideoRange)
{
    const std::vector<std::pair<std::vector<unsigned char>, std::vector<int>>> colours = {
        {{0, 128, 255}, {16, 128, 239}},
        {{128, 0, 128}, {125, 16, 128}},
        {{255, 255, 0}, {235, 239, 16}},
    };
    for (const auto& [stored, shown] : colours) {
        reset_for_jpeg();
        open(write(flat(ycbcr(8, 8, {1, 1}), stored)));
        ASSERT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
        EXPECT_EQ(luma(7, 7), shown[0]);
        EXPECT_EQ(u(7, 7), shown[1]);
        EXPECT_EQ(v(7, 7), shown[2]);
    }
}

TEST_F(JpegRaw, GreyBecomesVideoRangeWithoutOtherPlanes)
{
    open(write(flat(grey(8, 8), {255})), sentinel);
    ASSERT_EQ(decode(full_decode_jpeg_raw_grayscale), 0);
    EXPECT_EQ(luma(0, 0), 235);
    EXPECT_EQ(luma(8, 0), 29); // padding of the stride: black that is rescaled a second time
    EXPECT_EQ(luma(0, 8), 16); // rows below the last group
    EXPECT_EQ(luma(15, 31), 16);
    EXPECT_EQ(scripted::buffer()[16 * 32], sentinel);
    EXPECT_EQ(scripted::log.mappings, 1U);
}

TEST_F(JpegRaw, PaddingOfColourIsBlack)
{
    open(write(flat(ycbcr(8, 8, {1, 1}), {255, 255, 255})), sentinel);
    ASSERT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
    EXPECT_EQ(luma(8, 0), 29);
    EXPECT_EQ(u(8, 0), 128);
    EXPECT_EQ(v(15, 7), 128);
    EXPECT_EQ(luma(0, 8), 16);
    EXPECT_EQ(u(0, 8), 128);
    EXPECT_EQ(v(0, 31), 128);
}

// --- progress and pumping -----------------------------------------------------------------------

TEST_F(JpegRaw, ProgressIsReportedAndClientsServedForEachRowGroup)
{
    open(write(ycbcr(16, 48, {2, 2})));
    ASSERT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
    EXPECT_THAT(scripted::log.status,
                testing::ElementsAre(status_line{0, "Decoding JPEG"},
                                     status_line{33, "Decoding JPEG"},
                                     status_line{66, "Decoding JPEG"}, status_line{100, ""}));
    EXPECT_EQ(scripted::log.idle_rounds, 3U);
    EXPECT_EQ(scripted::log.mappings, 9U);
    EXPECT_EQ(printed, "");
}

TEST_F(JpegRaw, RowGroupHeightFollowsTheVerticalFactor)
{
    const std::vector<std::pair<factors, uint64_t>> groups_of_64_rows = {
        {{1, 1}, 8}, {{2, 1}, 8}, {{1, 2}, 4}, {{2, 2}, 4}};
    for (const auto& [factor, groups] : groups_of_64_rows) {
        reset_for_jpeg();
        open(write(ycbcr(16, 64, factor)));
        ASSERT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
        EXPECT_EQ(scripted::log.idle_rounds, groups);
    }
}

TEST_F(JpegRaw, OneRowIsOneGroupAndFinished)
{
    open(write(ycbcr(1, 1, {2, 2})));
    ASSERT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
    EXPECT_EQ(scripted::log.idle_rounds, 1U);
    EXPECT_EQ(jpeg_decompress->global_state, 200); // finished, so the library is idle again
}

TEST_F(JpegRaw, BandsHaveTheirFullHeight)
{
    // A band is 32 rows of colour or 64 rows of grey. No row beyond it is mapped.
    open(write(ycbcr(16, 96, {1, 1})));
    scripted::plan.unmappable = {image_offset_Y + 32 * image_stride_Y, 1};
    decode(full_decode_jpeg_raw_yuv);
    EXPECT_EQ(printed, "Failed to memory-map Y plane\n");
    EXPECT_EQ(scripted::log.idle_rounds, 2U);

    reset_for_jpeg();
    open(write(grey(16, 128)));
    scripted::plan.unmappable = {image_offset_Y + 64 * image_stride_Y, 1};
    decode(full_decode_jpeg_raw_grayscale);
    EXPECT_EQ(printed, "Failed to memory-map Y plane\n");
    EXPECT_EQ(scripted::log.idle_rounds, 2U);
}

// --- decodes that end early ---------------------------------------------------------------------

TEST_F(JpegRaw, PictureThatCannotBeStartedIsAFailure)
{
    file_bytes file = write(ycbcr(16, 16, {1, 1}));
    set_precision(file, 12);
    open(file, sentinel);
    EXPECT_EQ(decode(full_decode_jpeg_raw_yuv), -1);
    EXPECT_THAT(printed, EndsWith("jpeg_start_decompress() threw an error. giving up\n"));
    EXPECT_TRUE(scripted::log.status.empty());
    EXPECT_EQ(allocation(), std::vector<unsigned char>(image_decoded_size, sentinel));

    reset_for_jpeg();
    file = write(grey(16, 16));
    set_precision(file, 12);
    open(file);
    EXPECT_EQ(decode(full_decode_jpeg_raw_grayscale), -1);
}

TEST_F(JpegRaw, SignalBeforeTheFirstGroupDrawsNothing)
{
    open(write(ycbcr(16, 64, {2, 2})), sentinel);
    DIE4 = 1;
    EXPECT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(allocation(), std::vector<unsigned char>(image_decoded_size, sentinel));
    EXPECT_EQ(scripted::log.status, (std::vector<status_line>{{100, ""}}));
}

TEST_F(JpegRaw, SignalInAnIdleRoundStopsColourBeforeTheNextGroup)
{
    const file_bytes file = write(ycbcr(40, 80, {2, 1}));
    open(file, sentinel);
    scripted::plan.die_after_idle = 3;
    EXPECT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
    EXPECT_EQ(printed, "");
    expect_stopped_after(file, 2);
}

TEST_F(JpegRaw, SignalInAnIdleRoundLetsGreyDrawOneMoreGroup)
{
    const file_bytes file = write(grey(40, 200));
    open(file, sentinel);
    scripted::plan.die_after_idle = 3;
    EXPECT_EQ(decode(full_decode_jpeg_raw_grayscale), 0);
    EXPECT_EQ(printed, "");
    expect_stopped_after(file, 3);
}

TEST_F(JpegRaw, RowCounterMismatchStopsTheLoop)
{
    const file_bytes file = write(ycbcr(40, 80, {2, 1}));
    open(file, sentinel);
    in_idle_round(3, [] { jpeg_decompress->output_scanline = 5; });
    EXPECT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
    EXPECT_EQ(printed, "JPEGLIB scan line counter mismatch 16 != 5\n");
    EXPECT_EQ(jpeg_decompress->global_state, 200); // aborted
    expect_stopped_after(file, 2);
}

TEST_F(JpegRaw, RowCounterIsCheckedBeforeTheSecondSignalCheck)
{
    open(write(ycbcr(40, 80, {2, 1})));
    in_idle_round(3, [] {
        jpeg_decompress->output_scanline = 5;
        DIE4 = 1;
    });
    decode(full_decode_jpeg_raw_yuv);
    EXPECT_EQ(printed, "JPEGLIB scan line counter mismatch 16 != 5\n");
}

TEST_F(JpegRaw, GreyRowCounterMismatchStopsTheLoop)
{
    const file_bytes file = write(grey(40, 200));
    open(file, sentinel);
    in_idle_round(2, [] { jpeg_decompress->output_scanline = 0; });
    EXPECT_EQ(decode(full_decode_jpeg_raw_grayscale), 0);
    EXPECT_EQ(printed, "JPEGLIB scan line counter mismatch 8 != 0\n");
    expect_stopped_after(file, 1);
}

TEST_F(JpegRaw, UnmappablePlaneStopsTheLoop)
{
    const file_bytes file = write(ycbcr(40, 80, {2, 2}));
    const std::string lines[] = {"Failed to memory-map Y plane\n", "Failed to memory-map U plane\n",
                                 "Failed to memory-map V plane\n"};
    for (int plane = 0; plane < 3; ++plane) {
        for (int group = 0; group < 4; ++group) {
            reset_for_jpeg();
            open(file, sentinel);
            scripted::plan.fail_mapping = 3 * group + plane + 1;
            EXPECT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
            EXPECT_EQ(printed, lines[plane]);
            expect_stopped_after(file, static_cast<size_t>(group));
        }
    }
}

TEST_F(JpegRaw, UnmappableGreyPlaneStopsTheLoop)
{
    const file_bytes file = write(grey(40, 200));
    for (int group = 0; group < 10; ++group) {
        reset_for_jpeg();
        open(file, sentinel);
        scripted::plan.fail_mapping = group + 1;
        EXPECT_EQ(decode(full_decode_jpeg_raw_grayscale), 0);
        EXPECT_EQ(printed, "Failed to memory-map Y plane\n");
        expect_stopped_after(file, static_cast<size_t>(group));
    }
}

boolean no_more_input(j_decompress_ptr /*cinfo*/)
{
    return FALSE;
}

void starve_the_library()
{
    jpeg_decompress->src->bytes_in_buffer = 0;
    jpeg_decompress->src->fill_input_buffer = no_more_input;
}

TEST_F(JpegRaw, LibraryThatReturnsNoRowsStopsTheLoopInABlackBand)
{
    // The file exceeds the library's input buffer within one row group, so nothing of the group is
    // decoded ahead.
    picture what = ycbcr(16, 80, {2, 2});
    const file_bytes file = write(what);
    open(file, sentinel);
    in_idle_round(3, starve_the_library);
    EXPECT_EQ(decode(full_decode_jpeg_raw_yuv), 0);
    EXPECT_EQ(printed, "JPEG decode error. Aborting.\n");
    EXPECT_EQ(jpeg_decompress->global_state, 200); // aborted
    EXPECT_EQ(luma(0, 31), draw_literally(file)[31 * image_stride_Y]);
    for (uint64_t y = 32; y < 64; ++y) {
        EXPECT_EQ(luma(0, y), 16);
        EXPECT_EQ(luma(15, y), 16);
        EXPECT_EQ(u(7, y / 2), 128);
        EXPECT_EQ(v(7, y / 2), 128);
    }
    EXPECT_EQ(luma(0, 64), sentinel);
    EXPECT_EQ(scripted::log.status.back(), (status_line{100, ""}));
}

// --- ends of the process ------------------------------------------------------------------------

TEST_F(JpegRaw, MissingBufferBreaksAnInvariant)
{
    open(write(ycbcr(16, 16, {1, 1})));
    EXPECT_EXIT(
        {
            image_cnb_buffer_fd = -1;
            full_decode_jpeg_raw_yuv();
        },
        KilledBySignal(SIGABRT),
        "^bin/vexa_stillimage: full_decode_jpeg_raw_yuv: Assertion `image_cnb_buffer_fd >= 0' "
        "failed.\n$");
    EXPECT_EXIT(
        {
            image_cnb_buffer_fd = -1;
            full_decode_jpeg_raw_grayscale();
        },
        KilledBySignal(SIGABRT),
        "^bin/vexa_stillimage: full_decode_jpeg_raw_grayscale: Assertion "
        "`image_cnb_buffer_fd >= 0' failed.\n$");
}

TEST_F(JpegRaw, OtherComponentCountsBreakAnInvariant)
{
    open(write(ycbcr(16, 16, {1, 1})));
    EXPECT_EXIT(full_decode_jpeg_raw_grayscale(), KilledBySignal(SIGABRT),
                "full_decode_jpeg_raw_grayscale: Assertion `jpeg_decompress->num_components == 1' "
                "failed.\n$");
    reset_for_jpeg();
    open(write(grey(16, 16)));
    EXPECT_EXIT(full_decode_jpeg_raw_yuv(), KilledBySignal(SIGABRT),
                "full_decode_jpeg_raw_yuv: Assertion `jpeg_decompress->num_components == 3' "
                "failed.\n$");
}

TEST_F(JpegRaw, ChromaGroupThatDoesNotDivideBreaksAnInvariant)
{
    open(write(ycbcr(16, 16, {1, 1})));
    EXPECT_EXIT(
        {
            image_chroma_y_shift = 5;
            full_decode_jpeg_raw_yuv();
        },
        KilledBySignal(SIGABRT),
        "full_decode_jpeg_raw_yuv: Assertion `\\(GROUP_chroma << image_chroma_y_shift\\) == 16' "
        "failed.\n$");
}

constexpr char trapped[] = "Unexpected longjmp from JPEGLIB error handler\n";

TEST_F(JpegRaw, FatalErrorBetweenRowsEndsTheProcess)
{
    open(write(ycbcr(16, 80, {2, 2})));
    EXPECT_EXIT(
        {
            in_idle_round(2, [] { jpeg_decompress->global_state = 0; });
            full_decode_jpeg_raw_yuv();
        },
        KilledBySignal(SIGABRT), EndsWith(trapped));
}

TEST_F(JpegRaw, GarbageAfterTheScanEndsTheProcess)
{
    const std::vector<std::pair<file_bytes, std::string>> garbage = {
        {{0xFF, 0xC4, 0, 5, 9, 9, 9}, "'Bogus marker length')\n"},
        {{0xFF, 0xC0, 0, 11, 8, 0, 16, 0, 16, 1, 1, 0x11, 0},
         "'Invalid JPEG file structure: two SOF markers')\n"},
    };
    for (const auto& [bytes, library_line] : garbage) {
        reset_for_jpeg();
        file_bytes file = write(ycbcr(16, 16, {1, 1}));
        insert_before_end(file, bytes);
        open(file);
        EXPECT_EXIT(full_decode_jpeg_raw_yuv(), KilledBySignal(SIGABRT),
                    EndsWith(library_line + trapped));
    }
}

} // namespace
