// How generate_all_mipmaps handles an alpha plane without any transparent sample.
#include <cstring>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/mipmap.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/framebuffer/mipmap_model.h"
#include "tests/unit/framebuffer/picture.h"
#include "wire/scanline_format.h"

namespace {

class AlphaDrop : public framebuffer_test {
protected:
    static void provide(unsigned char alpha, uint64_t frames = 1)
    {
        allocate({.width = 130, .height = 70, .alpha = true, .frames = frames});
        ASSERT_EQ(mipmaps, 2);
        fill_planes(1);
        for (uint64_t frame = 0; frame < frames; ++frame) {
            memset(&byte_at(image_offset_A + frame * image_decoded_unit_size), alpha,
                   image_stride_A * static_cast<uint64_t>(image_buffer_height));
        }
    }

    static uint64_t listed_alpha_offset(const mipmap_image& picture)
    {
        uint32_t offset = 0;
        memcpy(&offset,
               &byte_at(picture.scanline_data_offset + scanline_format::at_plane_offsets + 12),
               sizeof offset);
        return offset;
    }

    static std::string generate()
    {
        return printed([] { generate_all_mipmaps(); });
    }
};

constexpr char dropped[] = "Image has opaque alpha channel. Disabling alpha channel.\n";
constexpr char levels[] = "Generating mipmap 65 x 35\nGenerating mipmap 33 x 18\n";

TEST_F(AlphaDrop, PlaneOf254And255IsDroppedBeforeAnyLevelIsMade)
{
    provide(254);
    byte_at(image_offset_A) = 255;
    EXPECT_EQ(generate(), std::string(dropped) + levels);
    EXPECT_EQ(image_has_alpha_channel, 0);
    EXPECT_EQ(image_offset_A, 0U);
    EXPECT_EQ(image_stride_A, 0U);
    EXPECT_TRUE(checked_main_alpha);
    for (const mipmap_image* picture : {&main_image_mipmap, &mipmap[0], &mipmap[1]}) {
        EXPECT_EQ(picture->stride_A, 0U);
        EXPECT_EQ(picture->offset_A, absent_plane);
        EXPECT_EQ(listed_alpha_offset(*picture), 0xFFFFFFFFU);
    }
    EXPECT_EQ(mipmaps_avail, 2);
}

TEST_F(AlphaDrop, LevelsOfADroppedPlaneAreNotWritten)
{
    provide(255);
    const uint64_t offset = mipmap[0].offset_A;
    generate();
    EXPECT_EQ(byte_at(offset), 0);
    EXPECT_NE(byte_at(mipmap[0].offset_Y), 0);
}

TEST_F(AlphaDrop, OneSampleOf253KeepsThePlane)
{
    provide(254);
    byte_at(image_offset_A + 69 * image_stride_A + 129) = 253; // the last visible sample
    const mipmap_image main = main_image_mipmap;
    EXPECT_EQ(generate(), levels);
    EXPECT_EQ(image_has_alpha_channel, 1);
    EXPECT_EQ(main_image_mipmap.offset_A, main.offset_A);
    EXPECT_EQ(listed_alpha_offset(main_image_mipmap), main.offset_A);
    EXPECT_EQ(byte_at(mipmap[0].offset_A), 254);
    EXPECT_TRUE(checked_main_alpha);
}

TEST_F(AlphaDrop, PlaneIsTestedOnce)
{
    provide(100);
    generate();
    memset(&byte_at(image_offset_A), 255, image_stride_A * 80);
    EXPECT_EQ(generate(), levels);
    EXPECT_EQ(image_has_alpha_channel, 1);
}

TEST_F(AlphaDrop, FurtherFramesKeepTheirPlanes)
{
    provide(255, 3);
    const std::string text = generate();
    EXPECT_EQ(text, std::string(dropped) + levels + levels + levels);
    for (size_t frame = 0; frame < 2; ++frame) {
        const mipmap_image& main = secondary_image_mipmap_main[frame];
        const mipmap_image& level = secondary_image_mipmap[0][frame];
        EXPECT_EQ(main.stride_A, 144U);
        EXPECT_EQ(listed_alpha_offset(main), main.offset_A);
        EXPECT_EQ(level.stride_A, 72U);
        EXPECT_EQ(listed_alpha_offset(level), level.offset_A);
        EXPECT_EQ(byte_at(level.offset_A), 255);
        EXPECT_EQ(byte_at(secondary_image_mipmap[1][frame].offset_A), 255);
    }
}

TEST_F(AlphaDrop, OnlyTheFirstFrameIsTested)
{
    provide(255, 2);
    byte_at(image_offset_A + image_decoded_unit_size) = 0;
    EXPECT_EQ(generate(), std::string(dropped) + levels + levels);
}

TEST_F(AlphaDrop, RecordWithoutThePlaneCountsAsTested)
{
    for (const bool by_stride : {true, false}) {
        provide(255);
        checked_main_alpha = false;
        if (by_stride) {
            main_image_mipmap.stride_A = 0;
        } else {
            main_image_mipmap.offset_A = absent_plane;
        }
        mipmap[0].stride_A = 0;
        EXPECT_EQ(generate(), levels);
        EXPECT_TRUE(checked_main_alpha);
        EXPECT_EQ(image_has_alpha_channel, 1);
    }
}

TEST_F(AlphaDrop, PictureWithoutAlphaIsNotTested)
{
    allocate({});
    generate();
    EXPECT_FALSE(checked_main_alpha);
}

TEST_F(AlphaDrop, FailingListIsReportedAndTheOthersAreWritten)
{
    provide(255);
    scripted::plan.fail_mapping = 70 + 2; // the lists follow the rows: main, level 0, level 1
    errno = EIO;                          // left by an unrelated call
    EXPECT_EQ(generate(), std::string(dropped) +
                              "Memory mapping scanline area failed, No such device or address\n"
                              "Error: Unable to set up scanline list\n" +
                              levels);
    EXPECT_EQ(listed_alpha_offset(main_image_mipmap), 0xFFFFFFFFU);
    EXPECT_NE(listed_alpha_offset(mipmap[0]), 0xFFFFFFFFU);
    EXPECT_EQ(listed_alpha_offset(mipmap[1]), 0xFFFFFFFFU);
}

TEST_F(AlphaDrop, SignalDuringTheTestKeepsThePlaneUntested)
{
    provide(255);
    scripted::plan.die_after_idle = 1; // row 64 of 70
    EXPECT_EQ(generate(), levels);
    EXPECT_EQ(image_has_alpha_channel, 1);
    EXPECT_FALSE(checked_main_alpha);
    EXPECT_EQ(mipmaps_avail, 2);
}

} // namespace
