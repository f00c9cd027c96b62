#include <csignal>
#include <malloc.h>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/decode/cmyk_kernels.h"
#include "bin/decode/colour_rules.h"
#include "bin/decode/jpeg.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"
#include "platform/run_state.h"
#include "tests/support/failing_calls.h"
#include "tests/support/file_contents.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_literal.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/scripted_platform.h"

using namespace jpeg_writer;
using testing::HasSubstr;
using testing::KilledBySignal;

namespace {

// --- per-sample rules, every pair ---------------------------------------------------------------

struct all_pairs {
    all_pairs()
    {
        for (int k = 0; k < 256; ++k) {
            for (int sample = 0; sample < 256; ++sample) {
                samples.push_back(static_cast<unsigned char>(sample));
                ks.push_back(static_cast<unsigned char>(k));
            }
        }
    }

    std::vector<unsigned char> samples;
    std::vector<unsigned char> ks;
};

TEST(CmykKernels, LumaIsInvertedAndDarkenedForEveryPair)
{
    all_pairs pairs;
    invert_and_darken_luma(pairs.samples.data(), pairs.ks.data(), pairs.ks.size());
    for (size_t i = 0; i < pairs.ks.size(); ++i) {
        const int sample = static_cast<int>(i % 256);
        ASSERT_EQ(pairs.samples[i], (255 - sample) * pairs.ks[i] / 255) << i;
    }
}

TEST(CmykKernels, ChromaIsInvertedAndMovedTowardsTheMiddleForEveryPair)
{
    all_pairs pairs;
    invert_and_darken_chroma(pairs.samples.data(), pairs.ks.data(), pairs.ks.size());
    for (size_t i = 0; i < pairs.ks.size(); ++i) {
        const int chroma = 255 - static_cast<int>(i % 256);
        ASSERT_EQ(pairs.samples[i], 128 + (chroma - 128) * pairs.ks[i] / 255) << i;
    }
}

TEST(CmykKernels, InvertComplementsEverySample)
{
    all_pairs pairs;
    invert(pairs.samples.data(), 256);
    for (size_t i = 0; i < 256; ++i) {
        ASSERT_EQ(pairs.samples[i], 255 - i);
    }
}

TEST(CmykKernels, CmykBecomesYuvForEveryPairInEachChannel)
{
    for (int channel = 0; channel < 3; ++channel) {
        const all_pairs pairs;
        std::vector<unsigned char> planes[3];
        for (auto& plane : planes) {
            plane.assign(pairs.ks.size(), 200);
        }
        planes[channel] = pairs.samples;
        cmyk_to_yuv(planes[0].data(), planes[1].data(), planes[2].data(), pairs.ks.data(),
                    pairs.ks.size());
        for (size_t i = 0; i < pairs.ks.size(); ++i) {
            const int k = pairs.ks[i];
            int rgb[3] = {200 * k / 255, 200 * k / 255, 200 * k / 255};
            rgb[channel] = static_cast<int>(i % 256) * k / 255;
            ASSERT_EQ(planes[0][i], (66 * rgb[0] + 129 * rgb[1] + 25 * rgb[2] + 4096) >> 8) << i;
            ASSERT_EQ(planes[1][i], (-38 * rgb[0] - 74 * rgb[1] + 112 * rgb[2] + 32768) >> 8) << i;
            ASSERT_EQ(planes[2][i], (112 * rgb[0] - 94 * rgb[1] - 18 * rgb[2] + 32768) >> 8) << i;
        }
    }
}

TEST(CmykKernels, EveryCountChangesNothingAfterItsSamples)
{
    for (size_t count = 0; count <= 100; ++count) {
        const all_pairs pairs;
        std::vector<unsigned char> planes[3] = {pairs.samples, pairs.samples, pairs.samples};
        cmyk_to_yuv(planes[0].data(), planes[1].data(), planes[2].data(), pairs.ks.data() + 9000,
                    count);
        for (const auto& plane : planes) {
            ASSERT_EQ(plane[count], pairs.samples[count]);
        }
        auto luma = pairs.samples;
        auto chroma = pairs.samples;
        auto inverted = pairs.samples;
        invert_and_darken_luma(luma.data(), pairs.ks.data(), count);
        invert_and_darken_chroma(chroma.data(), pairs.ks.data(), count);
        invert(inverted.data(), count);
        ASSERT_EQ(luma[count], pairs.samples[count]);
        ASSERT_EQ(chroma[count], pairs.samples[count]);
        ASSERT_EQ(inverted[count], pairs.samples[count]);
    }
}

TEST(RgbToYuv, EveryColourIsTruncatedNotRounded)
{
    for (int r = 0; r < 256; ++r) {
        for (int g = 0; g < 256; ++g) {
            for (int b = 0; b < 256; ++b) {
                const yuv_sample yuv = rgb_to_yuv(
                    static_cast<uint16_t>(r), static_cast<uint16_t>(g), static_cast<uint16_t>(b));
                if (yuv.y != (66 * r + 129 * g + 25 * b + 4096) >> 8 ||
                    yuv.u != (-38 * r - 74 * g + 112 * b + 32768) >> 8 ||
                    yuv.v != (112 * r - 94 * g - 18 * b + 32768) >> 8) {
                    FAIL() << r << ' ' << g << ' ' << b;
                }
            }
        }
    }
}

// --- pictures -----------------------------------------------------------------------------------

constexpr unsigned char sentinel = 0xA5;

class JpegCmyk : public jpeg_test {
protected:
    static picture flat(picture what, const std::vector<unsigned char>& samples)
    {
        what.quality = 100;
        what.sample = [samples](int component, int, int) {
            return samples[static_cast<size_t>(component)];
        };
        return what;
    }

    std::vector<int> pixel(uint64_t x, uint64_t y) const
    {
        const uint64_t chroma = (y >> image_chroma_y_shift) * image_stride_U;
        return {scripted::buffer()[image_offset_Y + y * image_stride_Y + x],
                scripted::buffer()[image_offset_U + chroma + (x >> image_chroma_x_shift)],
                scripted::buffer()[image_offset_V + chroma + (x >> image_chroma_x_shift)]};
    }

    std::vector<int> drawn(J_COLOR_SPACE space, const std::vector<unsigned char>& samples)
    {
        reset_for_jpeg();
        open(write(flat(four(space, 8, 8, {1, 1}), samples)));
        EXPECT_EQ(decode(space == JCS_YCCK ? full_decode_jpeg_raw_ycck : full_decode_jpeg_raw_cmyk),
                  0);
        return pixel(3, 3);
    }

    int decode_by_colour_space()
    {
        return decode(jpeg_decompress->jpeg_color_space == JCS_YCCK ? full_decode_jpeg_raw_ycck
                                                                    : full_decode_jpeg_raw_cmyk);
    }

    void expect_drawn_literally(const file_bytes& file, const std::string& what)
    {
        reset_for_jpeg();
        open(file, sentinel);
        EXPECT_EQ(decode_by_colour_space(), 0) << what;
        literal_options options;
        options.before = sentinel;
        EXPECT_TRUE(allocation() == draw_literally(file, options)) << what;
        EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""})) << what;
    }
};

using yuv = std::vector<int>;

TEST_F(JpegCmyk, CmykExamples)
{
    EXPECT_EQ(drawn(JCS_CMYK, {255, 255, 255, 255}), (yuv{235, 128, 128}));
    EXPECT_EQ(drawn(JCS_CMYK, {10, 200, 90, 0}), (yuv{16, 128, 128}));
    EXPECT_EQ(drawn(JCS_CMYK, {255, 0, 0, 255}), (yuv{81, 90, 239}));
}

TEST_F(JpegCmyk, YcckExamples)
{
    EXPECT_EQ(drawn(JCS_YCCK, {0, 128, 128, 255})[0], 235);
    EXPECT_EQ(drawn(JCS_YCCK, {77, 30, 220, 0}), (yuv{16, 128, 128}));
    EXPECT_EQ(drawn(JCS_YCCK, {0, 255, 0, 255}), (yuv{235, 16, 239}));
}

TEST_F(JpegCmyk, EverySizeIsDrawnByTheRules)
{
    for (const int width : {1, 8, 15, 16, 17, 33}) {
        for (const int height : {1, 15, 17, 32, 33}) {
            const std::string what = std::to_string(width) + "x" + std::to_string(height);
            expect_drawn_literally(write(four(JCS_CMYK, width, height, {1, 1})), what);
            for (const factors all : {factors{1, 1}, {1, 2}, {2, 1}, {2, 2}}) {
                expect_drawn_literally(write(four(JCS_YCCK, width, height, all)), what);
            }
        }
    }
}

TEST_F(JpegCmyk, BlocksOfEverySizeStayInsideTheirPlane)
{
    for (int block = 1; block <= 16; ++block) {
        for (const int width : {16, 33, 48}) {
            const std::string name = std::to_string(width) + " block " + std::to_string(block);
            picture what = four(JCS_CMYK, width, block, {1, 1});
            what.block_size = block;
            expect_drawn_literally(write(what), name);
            for (const factors all : {factors{1, 1}, {1, 2}, {2, 1}, {2, 2}}) {
                what = four(JCS_YCCK, width, block, all);
                what.block_size = block;
                if (all.v * block <= 16) {
                    expect_drawn_literally(write(what), name + " YCCK");
                }
            }
        }
    }
}

TEST_F(JpegCmyk, GroupsOfMoreThan16RowsBreakAnInvariant)
{
    picture ink = four(JCS_CMYK, 40, 40, {4, 4});
    ink.separate_scans = true; // too many blocks for one scan
    open(write(ink));
    EXPECT_EXIT(full_decode_jpeg_raw_cmyk(), KilledBySignal(SIGABRT),
                "full_decode_jpeg_raw_cmyk: Assertion `irem <= 16' failed.\n$");
    for (int block = 9; block <= 16; ++block) {
        for (const factors all : {factors{1, 2}, {2, 2}}) {
            reset_for_jpeg();
            picture what = four(JCS_YCCK, 40, 40, all);
            what.block_size = block;
            open(write(what));
            EXPECT_EXIT(full_decode_jpeg_raw_ycck(), KilledBySignal(SIGABRT),
                        "full_decode_jpeg_raw_ycck: Assertion `irem <= 16' failed.\n$")
                << block;
        }
    }
}

// Rows of K that the file lacks must not show old contents of the heap.
TEST_F(JpegCmyk, UnequalFactorsGiveTheSamePictureEachTime)
{
    picture what = four(JCS_CMYK, 40, 40, {1, 1});
    what.sampling = {{2, 2}, {1, 1}, {1, 1}, {1, 1}};
    for (const int freed : {0, 85, 170}) {
        mallopt(M_PERTURB, freed);
        expect_drawn_literally(write(what), "2x2, 1x1, 1x1, 1x1");
    }
    mallopt(M_PERTURB, 0);
}

TEST_F(JpegCmyk, SubsampledYcckIsReportedForEachRowGroupAndChromaIsOnlyInverted)
{
    picture what = flat(four(JCS_YCCK, 48, 40, {2, 2}), {0, 255, 0, 0});
    open(write(what));
    EXPECT_EQ(decode(full_decode_jpeg_raw_ycck), 0);
    const std::string line = "ERROR: YCCK -> YUV: Unsupported chroma subsample\n";
    EXPECT_EQ(printed, line + line + line); // 40 rows in groups of 16
    EXPECT_EQ(pixel(0, 0), (yuv{16, 16, 239}));
}

TEST_F(JpegCmyk, VerticallySubsampledYcckDoesNotOverwriteTheNextPlane)
{
    expect_drawn_literally(write(four(JCS_YCCK, 16, 32, {1, 2})), "1x2");
    EXPECT_EQ(scripted::buffer()[image_scanline_data_buffer_offset], sentinel);
    EXPECT_EQ(printed, "");
}

TEST_F(JpegCmyk, FailedAllocationOfKIsReportedBeforeAnyLibraryCall)
{
    open(write(four(JCS_CMYK, 16, 16, {1, 1})));
    failing_calls::plan.calloc = 1;
    EXPECT_EQ(decode(full_decode_jpeg_raw_cmyk), -1);
    EXPECT_EQ(printed, "Cannot alloc K channel\n");
    failing_calls::plan.calloc = 1;
    EXPECT_EQ(decode(full_decode_jpeg_raw_ycck), -1);
    EXPECT_EQ(printed, "Cannot alloc K channel\n");
    EXPECT_TRUE(scripted::log.status.empty());
    EXPECT_EQ(jpeg_decompress->global_state, 202); // the header is read and nothing has started
}

TEST_F(JpegCmyk, FailedStartReturnsMinusOne)
{
    for (const J_COLOR_SPACE space : {JCS_CMYK, JCS_YCCK}) {
        reset_for_jpeg();
        file_bytes file = write(four(space, 16, 16, {1, 1}));
        set_precision(file, 12);
        open(file);
        EXPECT_EQ(decode_by_colour_space(), -1);
        EXPECT_THAT(printed, HasSubstr("jpeg_start_decompress() threw an error. giving up\n"));
    }
}

TEST_F(JpegCmyk, SignalStopsBeforeTheNextPass)
{
    open(write(four(JCS_YCCK, 16, 64, {1, 1})), sentinel);
    scripted::plan.die_after_idle = 2; // in the idle round of the second row group
    EXPECT_EQ(decode(full_decode_jpeg_raw_ycck), 0);
    literal_options options;
    options.groups = 2;
    options.before = sentinel;
    EXPECT_EQ(allocation(), draw_literally(write(four(JCS_YCCK, 16, 64, {1, 1})), options));
}

TEST_F(JpegCmyk, UnmappablePlaneStopsTheLoop)
{
    const std::string lines[] = {"Failed to memory-map Y plane\n", "Failed to memory-map U plane\n",
                                 "Failed to memory-map V plane\n"};
    for (const J_COLOR_SPACE space : {JCS_CMYK, JCS_YCCK}) {
        const file_bytes file = write(four(space, 40, 80, {1, 1}));
        for (size_t call = 0; call < 9; ++call) {
            reset_for_jpeg();
            open(file, sentinel);
            scripted::plan.fail_mapping = static_cast<int>(call + 1);
            EXPECT_EQ(decode_by_colour_space(), 0);
            EXPECT_EQ(printed, lines[call % 3]);
            literal_options options;
            options.groups = call / 3;
            options.before = sentinel;
            EXPECT_EQ(allocation(), draw_literally(file, options)) << call;
            EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""}));
        }
    }
}

TEST_F(JpegCmyk, ProgressIsReportedForEachRowGroup)
{
    open(write(four(JCS_CMYK, 16, 20, {1, 1})));
    EXPECT_EQ(decode(full_decode_jpeg_raw_cmyk), 0);
    const std::vector<scripted::status_line> wanted = {
        {0, "Decoding JPEG"}, {40, "Decoding JPEG"}, {80, "Decoding JPEG"}, {100, ""}};
    EXPECT_EQ(scripted::log.status, wanted);
    EXPECT_EQ(scripted::log.idle_rounds, 3U);
}

TEST_F(JpegCmyk, RowCounterMismatchIsReportedBeforeASignalIsObeyed)
{
    for (const J_COLOR_SPACE space : {JCS_CMYK, JCS_YCCK}) {
        reset_for_jpeg();
        open(write(four(space, 16, 64, {1, 1})));
        scripted::plan.on_idle = [] {
            if (scripted::log.idle_rounds == 3) {
                jpeg_decompress->output_scanline = 5;
                DIE4 = 1;
            }
        };
        EXPECT_EQ(decode_by_colour_space(), 0);
        EXPECT_EQ(printed, "JPEGLIB scan line counter mismatch 16 != 5\n");
        EXPECT_EQ(jpeg_decompress->global_state, 200); // aborted
    }
}

TEST_F(JpegCmyk, InvariantsNameTheDecoder)
{
    open(write(four(JCS_CMYK, 16, 16, {1, 1})));
    image_chroma_x_shift = 1;
    EXPECT_EXIT(full_decode_jpeg_raw_cmyk(), KilledBySignal(SIGABRT),
                "full_decode_jpeg_raw_cmyk: .*image_chroma_x_shift == 0");
    image_chroma_x_shift = 0;
    image_chroma_y_shift = 1;
    EXPECT_EXIT(full_decode_jpeg_raw_cmyk(), KilledBySignal(SIGABRT), "image_chroma_y_shift == 0");
    image_chroma_y_shift = 5; // 16 >> 5 is 0 rows
    EXPECT_EXIT(full_decode_jpeg_raw_ycck(), KilledBySignal(SIGABRT),
                "full_decode_jpeg_raw_ycck: Assertion `\\(GROUP_chroma << image_chroma_y_shift\\) "
                "== 16' failed.\n$");
    image_chroma_y_shift = 0;
    const int buffer = std::exchange(image_cnb_buffer_fd, -1);
    for (int (*const decoder)() : {full_decode_jpeg_raw_cmyk, full_decode_jpeg_raw_ycck}) {
        EXPECT_EXIT(decoder(), KilledBySignal(SIGABRT),
                    "full_decode_jpeg_raw_(cmyk|ycck): .*image_cnb_buffer_fd >= 0");
    }
    image_cnb_buffer_fd = buffer;
    jpeg_decompress->num_components = 3;
    EXPECT_EXIT(full_decode_jpeg_raw_cmyk(), KilledBySignal(SIGABRT),
                "jpeg_decompress->num_components == 4");
    EXPECT_EXIT(full_decode_jpeg_raw_ycck(), KilledBySignal(SIGABRT),
                "full_decode_jpeg_raw_ycck: .*jpeg_decompress->num_components == 4");
    unsigned char sample = 0;
    EXPECT_EXIT(jpeg_ycck_to_yuv(&sample, &sample, &sample, &sample, 0), KilledBySignal(SIGABRT),
                "i != 0");
}

TEST_F(JpegCmyk, RealFilesAreDrawnByTheRules)
{
    for (const char* name : {"cmyk-odd-width.jpg", "cmyk-32x32.jpg", "ycck-444.jpg", "ycck-420.jpg",
                             "ycck-422.jpg", "ycck-440.jpg"}) {
        expect_drawn_literally(read_test_file(std::string("jpeg/") + name), name);
    }
}

} // namespace
