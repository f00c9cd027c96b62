// The formats of raw video, for pictures of any size that the library can return.
#include <cstdint>

#include <gtest/gtest.h>

#include "gst/video_format.h"

namespace {

const uint8_t sample = 0;

struct shape {
    uint32_t width;
    uint32_t height;
    bool chroma = true;
    bool alpha = false;
};

stillimage_picture picture_of(const shape& made)
{
    stillimage_picture picture = {};
    picture.width = picture.full_width = made.width;
    picture.height = picture.full_height = made.height;
    picture.aspect_numerator = picture.aspect_denominator = 1;
    picture.plane[STILLIMAGE_Y] = &sample;
    picture.plane[STILLIMAGE_U] = picture.plane[STILLIMAGE_V] = made.chroma ? &sample : nullptr;
    picture.plane[STILLIMAGE_A] = made.alpha ? &sample : nullptr;
    for (int plane = 0; plane < STILLIMAGE_PLANES; ++plane) {
        picture.plane_width[plane] = made.width;
        picture.plane_height[plane] = made.height;
    }
    return picture;
}

bool is_possible(const shape& made)
{
    GstVideoInfo info;
    return video_info_of(picture_of(made), made.alpha, &info);
}

uint64_t plain_size(const shape& made)
{
    const unsigned planes = (made.chroma ? 3U : 1U) + (made.alpha ? 1U : 0U);
    return uint64_t{made.width} * made.height * planes;
}

// What is possible fits 32 bits, and has the size that its planes need.
TEST(GstVideoFormat, SizeOfAFrameNeverOverflows)
{
    constexpr uint32_t sides[] = {1, 255, 4096, 16'384, 32'767, 32'768, 46'341, 65'535};
    for (const uint32_t width : sides) {
        for (const uint32_t height : sides) {
            for (const bool chroma : {true, false}) {
                for (const bool alpha : {true, false}) {
                    const shape made = {width, height, chroma, alpha && chroma};
                    GstVideoInfo info;
                    if (video_info_of(picture_of(made), made.alpha, &info)) {
                        EXPECT_GE(info.size, plain_size(made)) << width << " x " << height;
                        EXPECT_LE(info.size, uint64_t{UINT32_MAX}) << width << " x " << height;
                    }
                }
            }
        }
    }
}

TEST(GstVideoFormat, LargestPicturesOfWorkersArePossible)
{
    EXPECT_TRUE(is_possible({16'384, 16'384}));
    EXPECT_TRUE(is_possible({16'384, 16'384, true, true}));
    EXPECT_TRUE(is_possible({65'535, 8192}));
    EXPECT_TRUE(is_possible({8192, 65'535}));
    EXPECT_TRUE(is_possible({46'341, 46'341, false}));
}

TEST(GstVideoFormat, FramesOf4GiBAreNot)
{
    EXPECT_FALSE(is_possible({65'535, 65'535}));
    EXPECT_FALSE(is_possible({65'535, 65'535, true, true}));
    EXPECT_FALSE(is_possible({46'341, 46'341}));
    GstVideoInfo info;
    ASSERT_TRUE(video_info_of(picture_of({64, 64}), false, &info));
    EXPECT_TRUE(is_video_size(info, 16'384, 16'384));
    EXPECT_FALSE(is_video_size(info, 65'535, 65'535));
}

} // namespace
