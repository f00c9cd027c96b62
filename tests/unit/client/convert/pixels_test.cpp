// Conversion to packed pixels: at the picture's own size, at other sizes, and invalid arguments.
#include <algorithm>
#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "tests/support/guarded_bytes.h"
#include "tests/unit/client/served_picture.h"

namespace {

using pixels = std::vector<uint8_t>;

uint32_t channels_of(uint32_t format)
{
    return format == STILLIMAGE_RGBA32 ? 4 : 3;
}

pixels convert(const stillimage_picture& picture, uint32_t format, uint32_t width, uint32_t height)
{
    const size_t row = size_t{width} * channels_of(format);
    pixels made(row * height);
    EXPECT_EQ(stillimage_picture_to_pixels(&picture, format, width, height, made.data(), row),
              STILLIMAGE_OK);
    return made;
}

pixels at_own_size(const stillimage_picture& picture, uint32_t format)
{
    return convert(picture, format, picture.width, picture.height);
}

// The share of source sample `i` of `from` in the result sample `at` of `to`.
double share(uint32_t at, uint32_t to, uint32_t i, uint32_t from)
{
    if (to < from) {
        const double step = static_cast<double>(from) / to;
        const double start = std::max<double>(i, at * step);
        const double end = std::min<double>(i + 1, (at + 1) * step);
        return std::max(end - start, 0.0) / step;
    }
    const double centre =
        std::clamp((at + 0.5) * from / to - 0.5, 0.0, static_cast<double>(from) - 1);
    return std::max(1 - std::abs(centre - i), 0.0);
}

struct extent {
    uint32_t width;
    uint32_t height;
};

// The defining formula, sample by sample, applied to the converted picture.
std::vector<double> reference(const pixels& from, extent size, extent wanted, uint32_t channels)
{
    std::vector<double> result;
    for (uint32_t y = 0; y < wanted.height; ++y) {
        for (uint32_t x = 0; x < wanted.width; ++x) {
            double sum[4] = {};
            for (uint32_t j = 0; j < size.height; ++j) {
                for (uint32_t i = 0; i < size.width; ++i) {
                    const double weight = share(x, wanted.width, i, size.width) *
                                          share(y, wanted.height, j, size.height);
                    const uint8_t* pixel = &from[(size_t{j} * size.width + i) * channels];
                    const double alpha = channels == 4 ? pixel[3] : 255.0;
                    for (int c = 0; c < 3; ++c) {
                        sum[c] += weight * pixel[c] * alpha / 255;
                    }
                    sum[3] += weight * alpha;
                }
            }
            for (uint32_t c = 0; c < channels; ++c) {
                result.push_back(c == 3 ? sum[3] : sum[3] > 0 ? sum[c] * 255 / sum[3] : 0);
            }
        }
    }
    return result;
}

void expect_scaled(const stillimage_picture& picture, uint32_t format, extent wanted)
{
    const uint32_t channels = channels_of(format);
    const pixels source = at_own_size(picture, format);
    const pixels made = convert(picture, format, wanted.width, wanted.height);
    if (wanted.width == picture.width && wanted.height == picture.height) {
        EXPECT_EQ(made, source); // invisible colours are kept
        return;
    }
    const auto expected = reference(source, {picture.width, picture.height}, wanted, channels);
    for (size_t i = 0; i < made.size(); ++i) {
        ASSERT_NEAR(made[i], expected[i], 0.51)
            << picture.width << "x" << picture.height << " to " << wanted.width << "x"
            << wanted.height << " at " << i;
    }
}

TEST(ConvertPixels, EverySizeScalesToEverySize)
{
    const uint32_t sizes[] = {1, 2, 3, 5, 8, 13, 21};
    for (const uint32_t from : sizes) {
        for (const uint32_t to : sizes) {
            const uint32_t other = 22 - from;
            const served_picture served(
                {.full_width = from, .full_height = other, .alpha = to % 2 == 0});
            for (const uint32_t format : {STILLIMAGE_RGB24, STILLIMAGE_RGBA32}) {
                expect_scaled(served.picture, format, {to, from});
                expect_scaled(served.picture, format, {23 - to, to});
                expect_scaled(served.picture, format, {from, to});
                expect_scaled(served.picture, format, {to, other});
            }
        }
    }
}

TEST(ConvertPixels, LargePictureShrinksToOnePixel)
{
    const served_picture served({.full_width = 1500, .full_height = 900});
    expect_scaled(served.picture, STILLIMAGE_RGB24, {1, 1});
    expect_scaled(served.picture, STILLIMAGE_RGB24, {3, 2});
}

TEST(ConvertPixels, OnePixelGrowsToOneColour)
{
    const served_picture served({.full_width = 1, .full_height = 1});
    const pixels one = at_own_size(served.picture, STILLIMAGE_RGB24);
    const pixels many = convert(served.picture, STILLIMAGE_RGB24, 40, 30);
    for (size_t i = 0; i < many.size(); ++i) {
        ASSERT_EQ(many[i], one[i % 3]);
    }
}

TEST(ConvertPixels, TransparentColoursDoNotBleedIntoVisibleOnes)
{
    const uint8_t luma[2] = {235, 16};
    const uint8_t alpha[2] = {0, 100};
    stillimage_picture picture = {};
    picture.width = 2;
    picture.height = 1;
    for (const int plane : {STILLIMAGE_Y, STILLIMAGE_A}) {
        picture.plane[plane] = plane == STILLIMAGE_Y ? luma : alpha;
        picture.stride[plane] = picture.plane_width[plane] = 2;
        picture.plane_height[plane] = 1;
    }
    EXPECT_EQ(convert(picture, STILLIMAGE_RGBA32, 1, 1), (pixels{0, 0, 0, 50}));
    EXPECT_EQ(convert(picture, STILLIMAGE_RGB24, 1, 1), (pixels{128, 128, 128}));
    EXPECT_EQ(at_own_size(picture, STILLIMAGE_RGBA32), (pixels{255, 255, 255, 0, 0, 0, 0, 100}));
    const uint8_t nothing[2] = {0, 0};
    picture.plane[STILLIMAGE_A] = nothing;
    EXPECT_EQ(convert(picture, STILLIMAGE_RGBA32, 1, 1), (pixels{0, 0, 0, 0}));
}

TEST(ConvertPixels, OpaquePictureHasFullAlpha)
{
    const served_picture served({.full_width = 7, .full_height = 5});
    for (const extent size : {extent{7, 5}, extent{3, 9}}) {
        const pixels rgb = convert(served.picture, STILLIMAGE_RGB24, size.width, size.height);
        const pixels rgba = convert(served.picture, STILLIMAGE_RGBA32, size.width, size.height);
        for (size_t i = 0; i < rgba.size(); ++i) {
            ASSERT_EQ(rgba[i], i % 4 == 3 ? 255 : rgb[i / 4 * 3 + i % 4]);
        }
    }
}

TEST(ConvertPixels, BytesAfterARowAreNotWritten)
{
    const served_picture served({.full_width = 5, .full_height = 3});
    for (const extent size : {extent{5, 3}, extent{4, 6}}) {
        const size_t row = size_t{size.width} * 3;
        const size_t stride = row + 7;
        const size_t last = stride * (size.height - 1) + row; // the last row needs no padding
        pixels made(last, 0xA5);
        ASSERT_EQ(stillimage_picture_to_pixels(&served.picture, STILLIMAGE_RGB24, size.width,
                                               size.height, made.data(), stride),
                  STILLIMAGE_OK);
        const pixels dense = convert(served.picture, STILLIMAGE_RGB24, size.width, size.height);
        for (size_t i = 0; i < last; ++i) {
            const bool behind = i % stride >= row;
            ASSERT_EQ(made[i], behind ? 0xA5 : dense[i / stride * row + i % stride]);
        }
    }
}

TEST(ConvertPixels, SamplesOutsideThePlanesAreNotRead)
{
    for (uint32_t width = 1; width < 36; ++width) {
        const sample_shape shape = {.full_width = width, .full_height = 3};
        served_picture served(shape);
        std::vector<std::unique_ptr<guarded_bytes>> guards;
        for (size_t p = 0; p < 3; ++p) { // planes that end at their last sample
            const uint32_t plane_width = served.picture.plane_width[p];
            const uint32_t rows = served.picture.plane_height[p];
            pixels dense;
            for (uint32_t y = 0; y < rows; ++y) {
                const uint8_t* row = served.picture.plane[p] + y * served.picture.stride[p];
                dense.insert(dense.end(), row, row + plane_width);
            }
            guards.push_back(std::make_unique<guarded_bytes>(dense));
        }
        const pixels expected = at_own_size(served.picture, STILLIMAGE_RGB24);
        for (size_t p = 0; p < 3; ++p) {
            served.picture.plane[p] = guards[p]->begin();
            served.picture.stride[p] = served.picture.plane_width[p];
        }
        EXPECT_EQ(at_own_size(served.picture, STILLIMAGE_RGB24), expected);
    }
}

TEST(ConvertPixels, InvalidArgumentsAreRefused)
{
    served_picture served({.full_width = 5, .full_height = 3, .alpha = true});
    uint8_t room[5 * 3 * 4] = {};
    const auto result = [&](const stillimage_picture* picture, uint32_t format = STILLIMAGE_RGB24,
                            uint32_t width = 5, uint32_t height = 3, size_t stride = 20) {
        return stillimage_picture_to_pixels(picture, format, width, height, room, stride);
    };
    const stillimage_picture good = served.picture;
    EXPECT_EQ(result(&good), STILLIMAGE_OK);
    EXPECT_EQ(result(nullptr), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(result(&good, 0), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(result(&good, 3), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(result(&good, STILLIMAGE_RGB24, 0), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(result(&good, STILLIMAGE_RGB24, 5, 0), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(result(&good, STILLIMAGE_RGB24, 0x80000000U, 3, SIZE_MAX), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(result(&good, STILLIMAGE_RGB24, 5, 3, 14), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(result(&good, STILLIMAGE_RGB24, 5, 3, 15), STILLIMAGE_OK);
    EXPECT_EQ(result(&good, STILLIMAGE_RGBA32, 5, 3, 19), STILLIMAGE_ERROR_ARGUMENT);
    for (const size_t stride : {SIZE_MAX, SIZE_MAX / 2 + 1, size_t{PTRDIFF_MAX} / 2 + 1}) {
        EXPECT_EQ(result(&good, STILLIMAGE_RGB24, 5, 3, stride), STILLIMAGE_ERROR_ARGUMENT);
    }
    EXPECT_EQ(stillimage_picture_to_pixels(&good, STILLIMAGE_RGB24, 5, 3, nullptr, 20),
              STILLIMAGE_ERROR_ARGUMENT);
    const auto refused = [&](const std::function<void(stillimage_picture&)>& change) {
        stillimage_picture bad = good;
        change(bad);
        return result(&bad) == STILLIMAGE_ERROR_ARGUMENT;
    };
    EXPECT_TRUE(refused([](auto& p) { p.plane[STILLIMAGE_Y] = nullptr; }));
    EXPECT_TRUE(refused([](auto& p) { p.plane[STILLIMAGE_U] = nullptr; }));
    EXPECT_TRUE(refused([](auto& p) { p.plane[STILLIMAGE_V] = nullptr; }));
    EXPECT_TRUE(refused([](auto& p) { p.width = 0; }));
    EXPECT_TRUE(refused([](auto& p) { p.height = 0; }));
    EXPECT_TRUE(refused([](auto& p) { p.chroma_x_shift = 3; }));
    EXPECT_TRUE(refused([](auto& p) { p.chroma_y_shift = 3; }));
    EXPECT_TRUE(refused([](auto& p) { p.plane_width[STILLIMAGE_Y] = 4; }));
    EXPECT_TRUE(refused([](auto& p) { p.plane_height[STILLIMAGE_A] = 2; }));
    EXPECT_TRUE(refused([](auto& p) { p.plane_width[STILLIMAGE_U] = 0; }));
    EXPECT_TRUE(refused([](auto& p) { p.plane_height[STILLIMAGE_V] = 0; }));
}

} // namespace
