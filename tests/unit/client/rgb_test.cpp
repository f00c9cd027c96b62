#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "client/scanline_record.h"
#include "client/tool/picture_files.h"
#include "tests/support/frame_sample.h"

namespace {

stillimage_picture picture_of(const frame_sample& sample)
{
    stillimage_picture picture;
    std::string reason;
    EXPECT_TRUE(describe_picture(sample.record(), sample.message.scanline_size, sample.message,
                                 sample.area.data(), &picture, &reason))
        << reason;
    return picture;
}

uint8_t nearest(double value)
{
    return static_cast<uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
}

struct colour {
    uint8_t red, green, blue;
};

// The defining formula in floating point.
colour reference(int luma, int cb, int cr)
{
    const double y = (luma - 16) / 219.0 * 255.0;
    const double u = (cb - 128) / 224.0 * 255.0;
    const double v = (cr - 128) / 224.0 * 255.0;
    return {nearest(y + 1.402 * v), nearest(y - 0.344136 * u - 0.714136 * v),
            nearest(y + 1.772 * u)};
}

// Planes of one sample each.
rgb_picture one_pixel(const uint8_t samples[4], bool chroma, bool alpha)
{
    stillimage_picture picture = {};
    picture.width = picture.height = 1;
    for (int p = 0; p < STILLIMAGE_PLANES; ++p) {
        const bool there = p == STILLIMAGE_Y || (p == STILLIMAGE_A ? alpha : chroma);
        picture.plane[p] = there ? samples + p : nullptr;
        picture.stride[p] = picture.plane_width[p] = picture.plane_height[p] = there ? 1 : 0;
    }
    return to_rgb(picture, true);
}

TEST(Rgb, KnownColours)
{
    const struct {
        uint8_t yuv[4];
        colour rgb;
    } known[] = {{{16, 128, 128, 0}, {0, 0, 0}},        {{235, 128, 128, 0}, {255, 255, 255}},
                 {{126, 128, 128, 0}, {128, 128, 128}}, {{82, 90, 240, 0}, {255, 1, 0}},
                 {{41, 240, 110, 0}, {0, 0, 255}},      {{0, 128, 128, 0}, {0, 0, 0}},
                 {{255, 128, 128, 0}, {255, 255, 255}}};
    for (const auto& [yuv, rgb] : known) {
        const rgb_picture made = one_pixel(yuv, true, false);
        EXPECT_NEAR(made.samples[0], rgb.red, 1);
        EXPECT_NEAR(made.samples[1], rgb.green, 1);
        EXPECT_NEAR(made.samples[2], rgb.blue, 1);
    }
}

TEST(Rgb, AgreesWithTheFormulaEverywhere)
{
    int differing = 0;
    for (int y = 0; y < 256; y += 3) {
        for (int u = 0; u < 256; u += 5) {
            for (int v = 0; v < 256; v += 5) {
                const uint8_t yuv[4] = {static_cast<uint8_t>(y), static_cast<uint8_t>(u),
                                        static_cast<uint8_t>(v), 0};
                const rgb_picture made = one_pixel(yuv, true, false);
                const colour wanted = reference(y, u, v);
                const int worst = std::max({std::abs(made.samples[0] - wanted.red),
                                            std::abs(made.samples[1] - wanted.green),
                                            std::abs(made.samples[2] - wanted.blue)});
                ASSERT_LE(worst, 1) << y << " " << u << " " << v;
                differing += worst;
            }
        }
    }
    // Of 230,000: exact values halfway between two integers may be rounded either way.
    EXPECT_LT(differing, 500);
}

TEST(Rgb, EachPixelUsesItsOwnSamplesAtEverySize)
{
    for (const unsigned x_shift : {0U, 1U, 2U}) {
        for (const unsigned y_shift : {0U, 1U, 2U}) {
            for (uint32_t size = 1; size < 19; ++size) {
                const frame_sample sample({.full_width = size,
                                           .full_height = 20 - size,
                                           .x_shift = x_shift,
                                           .y_shift = y_shift,
                                           .alpha = size % 2 == 0});
                const stillimage_picture picture = picture_of(sample);
                const rgb_picture made = to_rgb(picture, true);
                ASSERT_EQ(made.width, size);
                ASSERT_EQ(made.height, 20 - size);
                ASSERT_EQ(made.channels, size % 2 == 0 ? 4 : 3);
                const auto at = [&](size_t p, uint32_t x, uint32_t y) {
                    return sample.area[sample.offsets[p] + y * sample.strides[p] + x];
                };
                size_t next = 0;
                for (uint32_t y = 0; y < made.height; ++y) {
                    for (uint32_t x = 0; x < made.width; ++x, next += made.channels) {
                        const colour wanted =
                            reference(at(0, x, y), at(1, x >> x_shift, y >> y_shift),
                                      at(2, x >> x_shift, y >> y_shift));
                        ASSERT_NEAR(made.samples[next], wanted.red, 1);
                        ASSERT_NEAR(made.samples[next + 1], wanted.green, 1);
                        ASSERT_NEAR(made.samples[next + 2], wanted.blue, 1);
                        if (made.channels == 4) {
                            ASSERT_EQ(made.samples[next + 3], at(3, x, y));
                        }
                    }
                }
                ASSERT_EQ(next, made.samples.size());
            }
        }
    }
}

TEST(Rgb, AlphaIsOmittedWhenNotWanted)
{
    const frame_sample sample({.alpha = true});
    EXPECT_EQ(to_rgb(picture_of(sample), false).channels, 3);
    EXPECT_EQ(to_rgb(picture_of(sample), true).channels, 4);
}

TEST(Rgb, MonochromeIsGray)
{
    const uint8_t samples[4] = {100, 7, 9, 33};
    const rgb_picture made = one_pixel(samples, false, true);
    EXPECT_EQ(made.samples, (std::vector<uint8_t>{98, 98, 98, 33}));
}

TEST(Rgb, ChromaThatEndsBeforeTheRowRepeatsItsLastSample)
{
    const uint8_t luma[3] = {126, 126, 126};
    const uint8_t u[2] = {128, 200};
    const uint8_t v[1] = {240};
    stillimage_picture picture = {};
    picture.width = 3;
    picture.height = 1;
    picture.chroma_x_shift = 1;
    const uint8_t* const planes[] = {luma, u, v};
    const uint32_t widths[] = {3, 2, 1};
    for (size_t p = 0; p < 3; ++p) {
        picture.plane[p] = planes[p];
        picture.stride[p] = picture.plane_width[p] = widths[p];
        picture.plane_height[p] = 1;
    }
    const rgb_picture made = to_rgb(picture, false);
    EXPECT_EQ(made.samples[6], made.samples[0]);
    EXPECT_EQ(made.samples[8], made.samples[2]);
}

} // namespace
