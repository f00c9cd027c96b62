// Reduced levels whose planes continue beyond the record's last row and column, as the worker's
// planes do. No conversion may show anything of that padding.
#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/tool/sheet_canvas.h"
#include "client/tool/y4m.h"
#include "tests/unit/client/served_picture.h"

namespace {

constexpr std::array<uint8_t, STILLIMAGE_PLANES> colour = {81, 90, 240, 200};
constexpr std::array<uint8_t, STILLIMAGE_PLANES> foreign = {235, 16, 16, 0};

uint64_t samples_of_level(uint32_t size, unsigned shift)
{
    return std::max(size >> shift, 1U);
}

// One colour inside the area that the record describes, another colour in the padding.
served_picture uniform_level(const sample_shape& shape)
{
    served_picture served(shape);
    frame_sample& sample = served.sample;
    for (size_t p = 0; p < STILLIMAGE_PLANES; ++p) {
        const bool chroma = p == STILLIMAGE_U || p == STILLIMAGE_V;
        const uint64_t width = samples_of_level(sample.width, chroma ? shape.x_shift : 0);
        const uint64_t rows = samples_of_level(sample.height, chroma ? shape.y_shift : 0);
        const uint64_t stride = sample.strides[p];
        for (uint64_t i = 0; i < stride * (sample.height + 2); ++i) {
            const bool inside = i % stride < width && i / stride < rows;
            sample.area[sample.offsets[p] + i] = inside ? colour[p] : foreign[p];
        }
    }
    return served;
}

// Levels of 200 sizes, odd in one or both directions, in every subsampling, with and without alpha.
template <typename Work>
void for_each_level(Work work)
{
    for (uint32_t i = 0; i < 200; ++i) {
        const uint32_t width = 33 + i * 29 % 71;
        const uint32_t height = 33 + i * 31 % 59;
        sample_shape shape = {.full_width = i % 3 == 0 ? width : width | 1U,
                              .full_height = i % 3 == 1 ? height : height | 1U,
                              .alpha = i % 2 == 0};
        for (shape.level = 1; shape.level <= 3; ++shape.level) {
            for (shape.x_shift = 0; shape.x_shift <= 2; ++shape.x_shift) {
                for (shape.y_shift = 0; shape.y_shift <= 2; ++shape.y_shift) {
                    work(uniform_level(shape));
                    ASSERT_FALSE(testing::Test::HasFailure())
                        << shape.full_width << " x " << shape.full_height << " level "
                        << shape.level << " shifts " << shape.x_shift << shape.y_shift;
                }
            }
        }
    }
}

std::vector<uint8_t> to_pixels(const served_picture& served, uint32_t width, uint32_t height)
{
    std::vector<uint8_t> rgb(size_t{3} * width * height);
    EXPECT_EQ(stillimage_picture_to_pixels(&served.picture, STILLIMAGE_RGB24, width, height,
                                           rgb.data(), size_t{3} * width),
              STILLIMAGE_OK);
    return rgb;
}

// Whether all pixels equal the first.
bool is_one_colour(const std::vector<uint8_t>& rgb)
{
    return std::equal(rgb.begin() + 3, rgb.end(), rgb.begin());
}

TEST(LevelEdges, PixelsHaveOneColourAtAnySize)
{
    for_each_level([](const served_picture& served) {
        const stillimage_picture& level = served.picture;
        const std::vector<uint8_t> own = to_pixels(served, level.width, level.height);
        EXPECT_GT(own[0], 250); // red
        EXPECT_TRUE(is_one_colour(own));
        EXPECT_TRUE(is_one_colour(to_pixels(served, level.width - 3, level.height - 3)));
        EXPECT_TRUE(is_one_colour(to_pixels(served, level.width + 3, level.height + 3)));
    });
}

TEST(LevelEdges, StreamsHaveOneColour)
{
    for_each_level([](const served_picture& served) {
        const stillimage_picture& level = served.picture;
        const stillimage_y4m_stream shape = y4m_stream_of(level);
        std::string frame;
        add_y4m_frame(level, shape, &frame);
        const size_t luma = size_t{level.width} * level.height;
        const bool alpha = level.plane[STILLIMAGE_A] != nullptr;
        size_t at = frame.find('\n') + 1;
        const size_t chroma = (frame.size() - at - luma * (alpha ? 2 : 1)) / 2;
        for (int p = 0; p < (alpha ? 4 : 3); ++p) {
            const size_t size = p == STILLIMAGE_U || p == STILLIMAGE_V ? chroma : luma;
            const char wanted = static_cast<char>(colour[static_cast<size_t>(p)]);
            EXPECT_EQ(frame.find_first_not_of(wanted, at),
                      at + size == frame.size() ? std::string::npos : at + size);
            at += size;
        }
        EXPECT_EQ(at, frame.size());
    });
}

TEST(LevelEdges, SheetsShowOneColour)
{
    for_each_level([](const served_picture& served) {
        stillimage_picture level = served.picture;
        level.plane[STILLIMAGE_A] = nullptr; // the checkerboard behind it has two colours
        sheet_canvas canvas({level.width, level.height}, 0);
        canvas.draw_picture({0, 0}, {level.width, level.height}, level);
        EXPECT_TRUE(is_one_colour(canvas.pixels().samples));
    });
}

TEST(LevelEdges, FullSizeExtendsToTheLastChromaSample)
{
    served_picture served({.full_width = 101, .full_height = 71});
    frame_sample& sample = served.sample;
    const uint64_t last = sample.offsets[STILLIMAGE_V] + 35 * sample.strides[STILLIMAGE_V] + 50;
    sample.area[last] = 240;
    sample.area[last - 1] = sample.area[last - sample.strides[STILLIMAGE_V]] = 16;
    const std::vector<uint8_t> rgb = to_pixels(served, 101, 71);
    sample.area[last] = 128;
    EXPECT_GT(rgb[rgb.size() - 3], to_pixels(served, 101, 71)[rgb.size() - 3]);
}

} // namespace
