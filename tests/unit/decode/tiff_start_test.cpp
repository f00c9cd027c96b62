// What the TIFF decoders check, report and allocate before the first strip.
#include <csignal>

#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "platform/cnb.h"
#include "tests/unit/decode/tiff_fixture.h"

namespace {

class DecodeTiffStart : public tiff_test {};

tiff_spec small(uint32_t photometric, uint32_t samples)
{
    tiff_spec spec = plain_tiff(8, 8, samples, photometric);
    if (photometric == 6) {
        spec.set_short(530, {1, 1});
    }
    return spec;
}

struct decoder_case {
    const char* name;
    uint32_t photometric;
    uint32_t samples;
};

constexpr decoder_case decoders[] = {{"full_decode_tiff_rgb", 2, 3},
                                     {"full_decode_tiff_grayscale", 1, 1},
                                     {"full_decode_tiff_ycbcr", 6, 3},
                                     {"full_decode_tiff_cmyk", 5, 4},
                                     {"full_decode_tiff_palette", 3, 1}};

struct invariant_case {
    const char* condition;
    void (*violate)();
};

constexpr invariant_case invariants[] = {
    {"tiff_bps != 0", [] { tiff_bps = 0; }},
    {"tiff_spp != 0", [] { tiff_spp = 0; }},
    {"tiff_strips != 0", [] { tiff_strips = 0; }},
    {"tiff_stripsize != 0", [] { tiff_stripsize = 0; }},
    {"tiff_stripheight != 0", [] { tiff_stripheight = 0; }},
    {"tiff_width != 0", [] { tiff_width = 0; }},
    {"tiff_height != 0", [] { tiff_height = 0; }},
    {"tiff_bytes_per_row != 0", [] { tiff_bytes_per_row = 0; }},
    {"image_cnb_buffer_fd >= 0", [] { image_cnb_buffer_fd = -1; }},
    {"image_chroma_x_shift == 0", [] { image_chroma_x_shift = 1; }},
    {"image_chroma_y_shift == 0", [] { image_chroma_y_shift = 2; }},
};

TEST_F(DecodeTiffStart, BrokenInvariantsAbortWithTheNameOfTheDecoder)
{
    for (const decoder_case& decoder : decoders) {
        for (const invariant_case& invariant : invariants) {
            ASSERT_TRUE(open(write_tiff(small(decoder.photometric, decoder.samples))));
            EXPECT_EXIT(
                {
                    invariant.violate();
                    // Called directly, since the fixture captures standard error.
                    decode_directly();
                },
                testing::KilledBySignal(SIGABRT),
                std::string("bin/vexa_stillimage: .*") + decoder.name + ".*`" +
                    invariant.condition + "'");
            start_over();
        }
    }
}

TEST_F(DecodeTiffStart, InvariantsAreCheckedInOrder)
{
    for (size_t i = 0; i + 1 < std::size(invariants); ++i) {
        ASSERT_TRUE(open(write_tiff(small(2, 3))));
        EXPECT_EXIT(
            {
                for (size_t j = i; j < std::size(invariants); ++j) {
                    invariants[j].violate();
                }
                decode_directly();
            },
            testing::KilledBySignal(SIGABRT), invariants[i].condition);
        start_over();
    }
}

TEST_F(DecodeTiffStart, SubsampledYcbcrPassesExaminationAndBreaksTheInvariant)
{
    tiff_spec spec = plain_tiff(16, 16, 3, 6);
    ASSERT_TRUE(open(write_tiff(spec)));
    EXPECT_EXIT(decode_directly(), testing::KilledBySignal(SIGABRT),
                "full_decode_tiff_ycbcr.*image_chroma_x_shift == 0");
}

TEST_F(DecodeTiffStart, StripsAbove16MebibytesCauseAWarning)
{
    for (const decoder_case& decoder : decoders) {
        ASSERT_TRUE(open(write_tiff(small(decoder.photometric, decoder.samples))));
        tiff_stripsize = 16777216;
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(printed, "");
        tiff_stripsize = 16777217;
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(printed,
                  "WARNING: TIFF uses large strip size. This is known to cause decoding bugs in "
                  "libtiff that may cause display problems.\n"
                  "         Consider re-saving the image in a program that subdivides the image "
                  "correctly.\n"
                  "         This message can appear for large TIFFs converted by ImageMagick.\n");
        start_over();
    }
}

TEST_F(DecodeTiffStart, FailedStripAllocationIsReportedAndFails)
{
    for (const decoder_case& decoder : decoders) {
        ASSERT_TRUE(open(write_tiff(small(decoder.photometric, decoder.samples)), 0x5A));
        const file_bytes before = allocation();
        failing_calls::plan.calloc = 1;
        png_width = 7; // the clean-up includes the PNG reader
        const bool reports_failure_itself = decoder.photometric == 6;
        EXPECT_EQ(decode(), reports_failure_itself ? 0 : -1);
        EXPECT_EQ(printed, std::string("Unable to allocate TIFF strip\n") +
                               (reports_failure_itself ? "WARNING: Failed to decode TIFF\n" : ""));
        EXPECT_TRUE(allocation() == before);
        EXPECT_TRUE(scripted::log.status.empty());
        EXPECT_NE(tiff_image, nullptr);
        EXPECT_EQ(png_width, 0U);
        start_over();
    }
}

TEST_F(DecodeTiffStart, StripBufferHoldsTheRowsOfAPass)
{
    // Rows per strip, height, photometric value; the number of bytes that must be enough.
    const std::tuple<uint32_t, uint32_t, uint32_t, size_t> cases[] = {
        {0xFFFFFFFF, 10, 1, 10 * 8},  {0x80000001, 10, 1, 10 * 8}, {1, 10, 1, 8},
        {0xFFFFFFFF, 100, 1, 64 * 8}, {100, 100, 1, 64 * 8},       {3, 100, 2, 3 * 24},
        {4000, 4000, 2, 2048 * 24},
    };
    for (const auto& [strip, height, photometric, rows] : cases) {
        encoded_tiff made;
        made.width = 8;
        made.height = height;
        made.samples = photometric == 1 ? 1 : 3;
        made.photometric = static_cast<uint16_t>(photometric);
        made.rows_per_strip = strip;
        ASSERT_TRUE(open(encode_tiff(made)));
        failing_calls::plan.max_calloc = rows + size_t{6} * 8 - 1;
        EXPECT_NE(decode(), 0);
        failing_calls::plan.max_calloc = rows + size_t{6} * 8;
        failing_calls::plan.tiff_read_strip = [](uint32_t, unsigned char*, int64_t n) { return n; };
        EXPECT_EQ(decode(), 0);
        start_over();
    }
}

TEST_F(DecodeTiffStart, MissingColormapIsReportedAndFails)
{
    ASSERT_TRUE(open(write_tiff(small(3, 1))));
    failing_calls::plan.tiff_tag = 320;
    EXPECT_EQ(decode(), -1);
    EXPECT_EQ(printed, "Unable to retrieve colormap\n");
    EXPECT_TRUE(scripted::log.status.empty());
    for (const int colour : {0, 1, 2}) {
        failing_calls::plan = {};
        failing_calls::plan.tiff_null_colour = colour;
        EXPECT_EQ(decode(), -1);
        EXPECT_EQ(printed, "Unable to retrieve colormap\n");
    }
    EXPECT_TRUE(scripted::log.status.empty());
}

TEST_F(DecodeTiffStart, MemoryIsAllocatedBeforeTheColormapIsRead)
{
    ASSERT_TRUE(open(write_tiff(small(3, 1))));
    failing_calls::plan.tiff_tag = 320;
    failing_calls::plan.calloc = 1;
    EXPECT_EQ(decode(), -1);
    EXPECT_EQ(printed, "Unable to allocate TIFF strip\n");
}

} // namespace
