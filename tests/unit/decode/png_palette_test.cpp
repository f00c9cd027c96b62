#include <algorithm>
#include <array>
#include <vector>

#include <gtest/gtest.h>

#include "bin/decode/colour_rules.h"
#include "bin/decode/png_palette.h"
#include "tests/support/guarded_bytes.h"

namespace {

using yuv = std::array<int, 3>;

yuv of_rgb(unsigned char r, unsigned char g, unsigned char b)
{
    std::array<int, 4> result = {-1, -1, -1, -1};
    png_rgb2yuv(r, g, b, result.data());
    EXPECT_EQ(result[3], -1);
    return {result[0], result[1], result[2]};
}

yuv of_palette(unsigned char index, png_color_struct* palette, int size)
{
    std::array<int, 4> result = {-1, -1, -1, -1};
    png_pal2yuv(index, palette, size, result.data());
    EXPECT_EQ(result[3], -1);
    return {result[0], result[1], result[2]};
}

TEST(PngPalette, CornersOfTheColourCubeAndMiddleGrey)
{
    EXPECT_EQ(of_rgb(0, 0, 0), (yuv{16, 128, 128}));
    EXPECT_EQ(of_rgb(255, 255, 255), (yuv{235, 128, 128}));
    EXPECT_EQ(of_rgb(255, 0, 0), (yuv{81, 90, 239}));
    EXPECT_EQ(of_rgb(0, 255, 0), (yuv{144, 54, 34}));
    EXPECT_EQ(of_rgb(0, 0, 255), (yuv{40, 239, 110}));
    EXPECT_EQ(of_rgb(128, 128, 128), (yuv{126, 128, 128}));
}

TEST(PngPalette, EveryColourFollowsTheRuleWithinItsRange)
{
    yuv least = {255, 255, 255};
    yuv most = {0, 0, 0};
    for (int colour = 0; colour < 1 << 24; ++colour) {
        const int r = colour >> 16;
        const int g = colour >> 8 & 255;
        const int b = colour & 255;
        const yuv made = of_rgb(static_cast<unsigned char>(r), static_cast<unsigned char>(g),
                                static_cast<unsigned char>(b));
        const yuv expected = {(66 * r + 129 * g + 25 * b + 4096) >> 8,
                              (-38 * r - 74 * g + 112 * b + 32768) >> 8,
                              (112 * r - 94 * g - 18 * b + 32768) >> 8};
        ASSERT_EQ(made, expected) << r << " " << g << " " << b;
        for (size_t i = 0; i < 3; ++i) {
            least[i] = std::min(least[i], made[i]);
            most[i] = std::max(most[i], made[i]);
        }
    }
    EXPECT_EQ(least, (yuv{16, 16, 16}));
    EXPECT_EQ(most, (yuv{235, 239, 239}));
}

TEST(PngPalette, PaletteEntryIsConverted)
{
    std::array<png_color_struct, 3> palette = {{{255, 0, 0}, {0, 0, 255}, {0, 255, 0}}};
    EXPECT_EQ(of_palette(0, palette.data(), 3), (yuv{81, 90, 239}));
    EXPECT_EQ(of_palette(1, palette.data(), 3), (yuv{40, 239, 110}));
    EXPECT_EQ(of_palette(2, palette.data(), 3), (yuv{144, 54, 34}));
}

TEST(PngPalette, LastEntryOfAFullPaletteIsUsed)
{
    std::array<png_color_struct, 256> palette = {};
    palette[255] = {255, 255, 255};
    EXPECT_EQ(of_palette(255, palette.data(), 256), (yuv{235, 128, 128}));
}

// The memory ends with the palette.
TEST(PngPalette, IndexBeyondThePaletteIsBlackAndReadsNothing)
{
    const guarded_bytes bytes(std::vector<unsigned char>(2 * sizeof(png_color_struct), 255));
    auto* palette = reinterpret_cast<png_color_struct*>(const_cast<unsigned char*>(bytes.begin()));
    EXPECT_EQ(of_palette(1, palette, 2), (yuv{235, 128, 128}));
    EXPECT_EQ(of_palette(2, palette, 2), (yuv{16, 128, 128}));
    EXPECT_EQ(of_palette(255, palette, 2), (yuv{16, 128, 128}));
}

TEST(PngPalette, EmptyPaletteIsBlack)
{
    EXPECT_EQ(of_palette(0, nullptr, 0), (yuv{16, 128, 128}));
    EXPECT_EQ(of_palette(7, nullptr, -1), (yuv{16, 128, 128}));
}

TEST(PngPalette, GreyFollowsTheLumaRule)
{
    for (int grey = 0; grey < 256; ++grey) {
        EXPECT_EQ(rescale_luma_sample(static_cast<unsigned char>(grey)), grey * 219 / 255 + 16);
    }
    EXPECT_EQ(rescale_luma_sample(0), 16);
    EXPECT_EQ(rescale_luma_sample(1), 16);
    EXPECT_EQ(rescale_luma_sample(128), 125);
    EXPECT_EQ(rescale_luma_sample(255), 235);
}

} // namespace
