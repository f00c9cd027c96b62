#include <array>
#include <csignal>
#include <cstdint>

#include <gmock/gmock.h>

#include "bin/decode/colour_rows.h"
#include "bin/decode/png.h"
#include "bin/decode/png_palette.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"
#include "tests/unit/decode/png_fixture.h"

using testing::KilledBySignal;

namespace png_tests {
namespace {

constexpr const char* other_pattern = "Unsupported interlace pattern\n";
constexpr const char* adam7_pattern = "ADAM7 interlace not supported in this decode\n";

class Png : public Fixture {
protected:
    static png_spec one_row(uint8_t colour_type, uint8_t depth, uint32_t width, bytes samples)
    {
        samples.insert(samples.begin(), 0);
        return {.width = width, .depth = depth, .colour_type = colour_type, .rows = samples};
    }

    void draw(const png_spec& spec)
    {
        open(write_png(spec));
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(printed, "");
    }

    static int y(size_t at) { return scripted::buffer()[image_offset_Y + at]; }
    static int a(size_t at) { return scripted::buffer()[image_offset_A + at]; }

    static std::array<int, 3> pixel(size_t at)
    {
        return {y(at), scripted::buffer()[image_offset_U + at],
                scripted::buffer()[image_offset_V + at]};
    }

    static void expect_closed()
    {
        EXPECT_EQ(png_context, nullptr);
        EXPECT_EQ(png_context_info, nullptr);
        EXPECT_EQ(png_fp, nullptr);
    }

    static std::string assertion(const model& m, const std::string& condition)
    {
        return std::string("bin/vexa_stillimage: ") + m.name + ": Assertion `" + condition +
               "' failed.\n";
    }
};

// --- colours ------------------------------------------------------------------------------------

TEST_F(Png, RgbBecomesVideoRange)
{
    draw(
        one_row(2, 8, 6, {0, 0, 0, 255, 255, 255, 255, 0, 0, 0, 0, 255, 0, 255, 0, 128, 128, 128}));
    EXPECT_EQ(pixel(0), (std::array{16, 128, 128}));
    EXPECT_EQ(pixel(1), (std::array{235, 128, 128}));
    EXPECT_EQ(pixel(2), (std::array{81, 90, 239}));
    EXPECT_EQ(pixel(3), (std::array{40, 239, 110}));
    EXPECT_EQ(pixel(4), (std::array{144, 54, 34}));
    EXPECT_EQ(pixel(5), (std::array{126, 128, 128}));
}

TEST_F(Png, AlphaIsCopiedAndNotPremultiplied)
{
    draw(one_row(6, 8, 2, {255, 0, 0, 0, 255, 0, 0, 200}));
    EXPECT_EQ(pixel(0), (std::array{81, 90, 239}));
    EXPECT_EQ(a(0), 0);
    EXPECT_EQ(pixel(1), (std::array{81, 90, 239}));
    EXPECT_EQ(a(1), 200);
}

TEST_F(Png, GreyBecomesVideoRange)
{
    draw(one_row(0, 8, 4, {0, 1, 128, 255}));
    EXPECT_EQ(y(0), 16);
    EXPECT_EQ(y(1), 16);
    EXPECT_EQ(y(2), 125);
    EXPECT_EQ(y(3), 235);
}

TEST_F(Png, GreyOfOneBitIsBlackAndWhite)
{
    draw(one_row(0, 1, 2, {0b0100'0000}));
    EXPECT_EQ(y(0), 16);
    EXPECT_EQ(y(1), 235);
}

TEST_F(Png, GreyOfTwoBitsIsSpreadOverTheRange)
{
    draw(one_row(0, 2, 4, {0b0001'1011}));
    EXPECT_EQ(y(0), 16);
    EXPECT_EQ(y(1), 89);
    EXPECT_EQ(y(2), 162);
    EXPECT_EQ(y(3), 235);
}

TEST_F(Png, GreyOfFourBitsIsSpreadOverTheRange)
{
    draw(one_row(0, 4, 2, {0x1F}));
    EXPECT_EQ(y(0), 30);
    EXPECT_EQ(y(1), 235);
}

TEST_F(Png, SixteenBitsAreScaledToEight)
{
    draw(one_row(0, 16, 4, {0x80, 0x00, 0x00, 0x81, 0xFF, 0x7F, 0x00, 0x80}));
    EXPECT_EQ(y(0), 125);
    EXPECT_EQ(y(1), 16);  // 1
    EXPECT_EQ(y(2), 235); // 254.5 would be truncated to 254
    EXPECT_EQ(y(3), 16);
}

TEST_F(Png, GreyWithAlphaDrawsLumaAndAlpha)
{
    draw(one_row(4, 8, 2, {0, 0, 255, 77}));
    EXPECT_EQ(y(0), 16);
    EXPECT_EQ(a(0), 0);
    EXPECT_EQ(y(1), 235);
    EXPECT_EQ(a(1), 77);
}

TEST_F(Png, PaletteIndexPastThePaletteIsBlack)
{
    png_spec spec = one_row(3, 8, 3, {15, 16, 200});
    spec.chunks = {{"PLTE", bytes(48, 255)}};
    draw(spec);
    EXPECT_EQ(pixel(0), (std::array{235, 128, 128}));
    EXPECT_EQ(pixel(1), (std::array{16, 128, 128}));
    EXPECT_EQ(pixel(2), (std::array{16, 128, 128}));
}

TEST_F(Png, TransparencyOfAPaletteIsIgnored)
{
    png_spec spec = one_row(3, 8, 1, {0});
    spec.chunks = {{"PLTE", {255, 0, 0}}, {"tRNS", {0}}};
    draw(spec);
    EXPECT_EQ(pixel(0), (std::array{81, 90, 239}));
    EXPECT_EQ(image_stride_A, 0U);
}

TEST_F(Png, PaletteOfThePreviousPictureIsNotKept)
{
    png_spec spec = one_row(3, 8, 1, {1});
    spec.chunks = {{"PLTE", {255, 0, 0, 255, 255, 255}}};
    draw(spec);
    EXPECT_EQ(y(0), 235);
    start_over();
    spec.chunks = {{"PLTE", {255, 0, 0}}};
    draw(spec);
    EXPECT_EQ(y(0), 16);
}

// --- refusals -----------------------------------------------------------------------------------

TEST_F(Png, Adam7IsRefusedByAllButRgb)
{
    for (const model& m : models) {
        if (m.adam7_status == nullptr) {
            continue;
        }
        start_over();
        open(write_png(random_picture(3, 3, m.colour_type, 8)));
        png_interlace_method = 1;
        failing_calls::plan.calloc = 1; // the allocation is not reached
        EXPECT_EQ(decode(), -1);
        EXPECT_EQ(printed, adam7_pattern) << m.name;
        EXPECT_EQ(scripted::log.status, (std::vector<scripted::status_line>{{-1, m.adam7_status}}));
        EXPECT_EQ(failing_calls::plan.calloc, 1);
        EXPECT_EQ(scripted::log.mappings, 0U);
        expect_closed();
    }
}

TEST_F(Png, OtherInterlaceMethodsAreRefusedByAllButRgb)
{
    for (const model& m : models) {
        if (m.adam7_status == nullptr) {
            continue;
        }
        for (const int method : {2, 255}) {
            start_over();
            open(write_png(random_picture(3, 3, m.colour_type, 8)));
            png_interlace_method = method;
            EXPECT_EQ(decode(), -1);
            EXPECT_EQ(printed, other_pattern) << m.name;
            std::vector<scripted::status_line> expected;
            if (m.other_status != nullptr) {
                expected.push_back({-1, m.other_status});
            }
            EXPECT_EQ(scripted::log.status, expected) << m.name;
            expect_closed();
        }
    }
}

TEST_F(Png, InterlacedRgbBreaksAnInvariant)
{
    open(write_png(random_picture(3, 3, 2, 8)));
    for (const int method : {1, 2}) {
        png_interlace_method = method;
        EXPECT_EXIT(full_decode_png_rgb(), KilledBySignal(SIGABRT),
                    assertion(model_of(2), "png_interlace_method == 0"));
    }
}

TEST_F(Png, FailedStagingAllocationIsReported)
{
    for (const model& m : models) {
        start_over();
        open(write_png(random_picture(3, 3, m.colour_type, 8)));
        failing_calls::plan.calloc = 1;
        if (m.colour_type == 0) { // needs none
            EXPECT_EQ(decode(), 0);
            EXPECT_EQ(failing_calls::plan.calloc, 1);
            continue;
        }
        EXPECT_EQ(decode(), -1);
        EXPECT_EQ(printed, "Unable to allocate RGB row\n") << m.name;
        EXPECT_TRUE(scripted::log.status.empty());
        expect_closed();
    }
}

TEST_F(Png, MissingPaletteIsReported)
{
    open(write_png(random_picture(3, 3, 3, 8)));
    png_interlace_method = 1; // is checked after the palette
    trouble = palette_trouble::NO_PALETTE;
    EXPECT_EQ(decode(), -1);
    EXPECT_EQ(printed, "PNG library failed to return color palette\n");
    EXPECT_TRUE(scripted::log.status.empty());
    expect_closed();
}

TEST_F(Png, NullPaletteBreaksAnInvariant)
{
    open(write_png(random_picture(3, 3, 3, 8)));
    trouble = palette_trouble::NULL_PALETTE;
    EXPECT_EXIT(full_decode_png_palette(), KilledBySignal(SIGABRT),
                assertion(model_of(3), "palette != __null"));
}

TEST_F(Png, PaletteIsConvertedForEveryIndexAndOpaque)
{
    png_spec spec = random_picture(3, 3, 3, 8);
    for (const size_t size : {size_t{10}, size_t{256}}) {
        spec.chunks[0].data.resize(3 * size);
        open(write_png(spec));
        ASSERT_EQ(prepare_png_palette("a decoder"), 0);
        for (size_t index = 0; index < 256; ++index) {
            const unsigned char black[3] = {};
            const unsigned char* colour = index < size ? &spec.chunks[0].data[3 * index] : black;
            int yuv[3] = {};
            png_rgb2yuv(colour[0], colour[1], colour[2], yuv);
            const packed_yuva& made = palette_colours[index];
            EXPECT_TRUE(made.y == yuv[0] && made.u == yuv[1] && made.v == yuv[2]) << index;
            EXPECT_EQ(made.a, 255);
        }
        start_over();
    }
}

TEST_F(Png, EntriesBeyondThePaletteAreNotRead)
{
    png_spec spec = random_picture(3, 3, 3, 8);
    spec.chunks[0].data.assign(3 * size_t{10}, 255);
    open(write_png(spec));
    trouble = palette_trouble::ONE_ENTRY_FEWER; // the library's memory holds the tenth, too
    ASSERT_EQ(prepare_png_palette("a decoder"), 0);
    EXPECT_EQ(palette_colours[8].y, 235);
    EXPECT_EQ(palette_colours[9].y, 16);
}

TEST_F(Png, InvalidStateBreaksInvariants)
{
    for (const model& m : models) {
        start_over();
        open(write_png(random_picture(3, 3, m.colour_type, 8)));
        EXPECT_EXIT(
            {
                image_cnb_buffer_fd = -1;
                m.decode();
            },
            KilledBySignal(SIGABRT), assertion(m, "image_cnb_buffer_fd >= 0"));
        EXPECT_EXIT(
            {
                image_chroma_x_shift = 1;
                m.decode();
            },
            KilledBySignal(SIGABRT), assertion(m, "image_chroma_x_shift == 0"));
        EXPECT_EXIT(
            {
                image_chroma_y_shift = 1;
                m.decode();
            },
            KilledBySignal(SIGABRT), assertion(m, "image_chroma_y_shift == 0"));
        if (m.planes.back() == "A") {
            EXPECT_EXIT(
                {
                    image_stride_A = 0;
                    m.decode();
                },
                KilledBySignal(SIGABRT), assertion(m, "image_stride_A != 0"));
        }
    }
}

} // namespace
} // namespace png_tests
