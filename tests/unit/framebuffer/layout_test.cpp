#include <climits>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"
#include "tests/unit/framebuffer/picture.h"

namespace {

class Layout : public framebuffer_test {};

constexpr uint64_t level_area = 16 + 2245;

TEST_F(Layout, WorkedExampleOfTheDocumentation)
{
    EXPECT_EQ(lay_out({.width = 100, .height = 70, .x_shift = 1, .y_shift = 1, .row_multiple = 32}),
              "CNB buffer stats:\n"
              "    Total: 16325\n"
              "    Y: ofs=0 stride=112\n"
              "    U: ofs=10752 stride=56\n"
              "    V: ofs=13440 stride=56\n"
              "    A: ofs=0 stride=0\n"
              "    Scanline: ofs=16128 len=197\n"
              "mipmap[0]: 50 x 35 @[16325,21813,23381,4294967295] stride=[56,32,32,0] "
              "scan@24965+2245\n");
    EXPECT_EQ(image_decoded_unit_size, 27210U);
    EXPECT_EQ(image_decoded_size, 27210U);
}

TEST_F(Layout, PlanesFollowEachOther)
{
    lay_out({.width = 65, .height = 64, .alpha = true});
    EXPECT_EQ(image_offset_Y, 0U);
    constexpr uint64_t plane = UINT64_C(80) * 64;
    EXPECT_EQ(image_offset_U, plane);
    EXPECT_EQ(image_offset_V, 2 * plane);
    EXPECT_EQ(image_offset_A, 3 * plane);
    EXPECT_EQ(image_scanline_data_buffer_offset, 4 * plane);
    ASSERT_EQ(mipmaps, 1);
    const mipmap_image& level = mipmap[0];
    constexpr uint64_t level_plane = UINT64_C(40) * 66;
    EXPECT_EQ(level.offset_Y, 4 * plane + 197);
    EXPECT_EQ(level.offset_U, level.offset_Y + level_plane);
    EXPECT_EQ(level.offset_V, level.offset_U + level_plane);
    EXPECT_EQ(level.offset_A, level.offset_V + level_plane);
    EXPECT_EQ(level.scanline_data_offset, level.offset_A + level_plane + 16);
    EXPECT_EQ(image_decoded_unit_size, level.scanline_data_offset + 2245);
}

TEST_F(Layout, LevelRecordsCarryShiftsScaleAndRows)
{
    lay_out({.width = 200, .height = 64, .x_shift = 1, .y_shift = 1});
    ASSERT_EQ(mipmaps, 2);
    EXPECT_EQ(mipmap[0].buffer_height, 66);
    EXPECT_EQ(mipmap[0].chroma_x_shift, 1);
    EXPECT_EQ(mipmap[0].chroma_y_shift, 1);
    EXPECT_EQ(mipmap[0].scale_x, 32768U);
    EXPECT_EQ(mipmap[0].scale_y, 32768U);
    EXPECT_EQ(mipmap[1].width, 50);
    EXPECT_EQ(mipmap[1].height, 16);
    EXPECT_EQ(mipmap[1].buffer_height, 66);
    EXPECT_EQ(mipmap[1].scale_x, 16384U);
    EXPECT_EQ(mipmap[1].scanline_data_size, 2245U);
}

TEST_F(Layout, NoLevelWhileBothHalvesAreBelow32)
{
    lay_out({.width = 33, .height = 20});
    EXPECT_EQ(mipmaps, 0);
    lay_out({.width = 63, .height = 63});
    EXPECT_EQ(mipmaps, 0);
    EXPECT_EQ(image_decoded_unit_size, 3 * 64U * 64 + 197);
}

TEST_F(Layout, PictureOf64SquareHasOneLevelOf32Square)
{
    lay_out({.width = 64, .height = 64});
    ASSERT_EQ(mipmaps, 1);
    EXPECT_EQ(mipmap[0].width, 32);
    EXPECT_EQ(mipmap[0].height, 32);
}

TEST_F(Layout, OneLongSideAloneIsEnoughForLevels)
{
    lay_out({.width = 100, .height = 9000});
    ASSERT_EQ(mipmaps, 8); // 9000 >> 8 is 35, 9000 >> 9 is 17
    EXPECT_EQ(mipmap[7].width, 1);
    EXPECT_EQ(mipmap[7].height, 36);
}

TEST_F(Layout, AtMost16Levels)
{
    lay_out({.width = 1 << 24, .height = 16, .x_shift = 1, .y_shift = 1});
    ASSERT_EQ(mipmaps, 16);
    EXPECT_EQ(mipmap[15].width, 256);
    EXPECT_EQ(mipmap[15].height, 1);
    EXPECT_EQ(mipmap[15].scale_x, 1U);
}

// The budget counts the picture's rows. Counted with the two additional rows of the level itself,
// this level would not fit.
TEST_F(Layout, LevelThatJustFitsTheBudgetIsLaidOut)
{
    // Strides 16 and 8 make 24 bytes a row; 197 and 2245 bytes are for the scanline data.
    constexpr int rows = (4026531839 - 197 - 2245) / 24;
    lay_out({.width = 16, .height = rows, .monochrome = true, .row_multiple = 1});
    EXPECT_EQ(mipmaps, 1);
    EXPECT_GT(image_decoded_unit_size, 4026531839U);

    lay_out({.width = 16, .height = rows + 1, .monochrome = true, .row_multiple = 1});
    EXPECT_EQ(mipmaps, 0);
}

TEST_F(Layout, BudgetCountsEveryPlaneWithFullRows)
{
    // 16 + 8 + 8 + 16 bytes and 8 + 8 + 8 + 8 more: the chroma planes count with all rows, although
    // they have half.
    constexpr int full_size = 16 + 4 + 4 + 16;
    constexpr int rows = (4026531839 - 197 - 2245) / (full_size + 32) / 2 * 2;
    shape picture = {
        .width = 16, .height = rows, .x_shift = 1, .y_shift = 1, .alpha = true, .row_multiple = 2};
    lay_out(picture);
    EXPECT_EQ(mipmaps, 1);
    picture.height += 2;
    lay_out(picture);
    EXPECT_EQ(mipmaps, 0);
}

TEST_F(Layout, FullSizeBeyondTheBudgetIsKeptWithoutLevels)
{
    lay_out({.width = 65535, .height = 65535, .alpha = true});
    EXPECT_EQ(mipmaps, 0);
    EXPECT_EQ(image_decoded_size, 4 * UINT64_C(65536) * 65536 + 197);
    EXPECT_EQ(cnb_total, image_decoded_size);
}

TEST_F(Layout, MonochromeHasZeroOffsetsInTheGlobalsAndMarkersInTheRecords)
{
    const std::string text = lay_out({.width = 64, .height = 64, .monochrome = true});
    EXPECT_NE(text.find("    U: ofs=0 stride=0\n    V: ofs=0 stride=0\n    A: ofs=0 stride=0\n"
                        "    Scanline: ofs=4096 len=197\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("mipmap[0]: 32 x 32 @[4293,4294967295,4294967295,4294967295] "
                        "stride=[32,0,0,0] scan@6421+2245\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(mipmap[0].offset_U, absent_plane);
    EXPECT_EQ(mipmap[0].offset_V, absent_plane);
    EXPECT_EQ(mipmap[0].offset_A, absent_plane);
}

TEST_F(Layout, WidthOfOneKeepsStridesOf16And8)
{
    lay_out({.width = 1, .height = 256});
    EXPECT_EQ(image_stride_Y, 16U);
    ASSERT_EQ(mipmaps, 3);
    for (int i = 0; i < mipmaps; ++i) {
        EXPECT_EQ(mipmap[i].width, 1);
        EXPECT_EQ(mipmap[i].stride_Y, 8U);
        EXPECT_EQ(mipmap[i].stride_U, 8U);
    }
}

TEST_F(Layout, WidthOfOneWithHalvedChromaHasOffsetsButNoStride)
{
    lay_out({.width = 1, .height = 64, .x_shift = 1, .y_shift = 1, .row_multiple = 32});
    EXPECT_EQ(image_stride_U, 8U);
    ASSERT_EQ(mipmaps, 1);
    EXPECT_EQ(mipmap[0].stride_U, 0U);
    EXPECT_EQ(mipmap[0].stride_V, 0U);
    EXPECT_EQ(mipmap[0].offset_U, mipmap[0].offset_Y + UINT64_C(8) * 66);
    EXPECT_EQ(mipmap[0].offset_V, mipmap[0].offset_U);
}

TEST_F(Layout, WidthOf17WithHalvedChromaHasStrides32And16)
{
    lay_out({.width = 17, .height = 40, .x_shift = 1, .y_shift = 1, .row_multiple = 32});
    EXPECT_EQ(image_stride_Y, 32U);
    EXPECT_EQ(image_stride_U, 16U);
    EXPECT_EQ(image_offset_U, 32U * 64);
    EXPECT_EQ(image_offset_V, 32U * 64 + 16 * 32);
}

TEST_F(Layout, ChromaOfOddLevelWidthsIsRoundedDown)
{
    lay_out({.width = 66, .height = 8, .x_shift = 1});
    ASSERT_EQ(mipmaps, 1);
    EXPECT_EQ(mipmap[0].width, 33);
    EXPECT_EQ(mipmap[0].stride_Y, 40U);
    EXPECT_EQ(mipmap[0].stride_U, 16U); // 33 / 2 = 16, not 17
}

TEST_F(Layout, TotalIsFramesTimesUnit)
{
    lay_out({.width = 70, .height = 40, .alpha = true, .frames = 5});
    EXPECT_EQ(image_decoded_unit_size, 4 * 80U * 48 + 197 + 4 * 40U * 50 + level_area);
    EXPECT_EQ(image_decoded_size, 5 * image_decoded_unit_size);
    EXPECT_EQ(cnb_total, image_decoded_size);
    EXPECT_EQ(cnb_static_alloc, 1);
}

TEST_F(Layout, TotalBeyond64BitsIsAllOnes)
{
    lay_out({.width = 64, .height = 64, .frames = UINT64_C(1) << 52});
    EXPECT_EQ(image_decoded_size, UINT64_MAX);
    EXPECT_EQ(cnb_total, UINT64_MAX);
}

TEST_F(Layout, LargestSidesDoNotWrap)
{
    lay_out({.width = INT_MAX, .height = 1, .row_multiple = 1});
    EXPECT_EQ(image_stride_Y, UINT64_C(1) << 31);
    EXPECT_EQ(image_decoded_size, 3 * (UINT64_C(1) << 31) + 197);
}

TEST_F(Layout, FinalReportShowsTheCurrentTotalAndLevels)
{
    lay_out({.width = 64, .height = 64, .monochrome = true, .alpha = true, .frames = 2});
    image_offset_A = image_stride_A = 0;
    mipmap[0].offset_A = absent_plane;
    mipmap[0].stride_A = 0;
    EXPECT_EQ(printed([] { print_final_layout(); }),
              "CNB buffer stats [final]:\n"
              "    Total: 29748\n"
              "    Y: ofs=0 stride=64\n"
              "    U: ofs=0 stride=0\n"
              "    V: ofs=0 stride=0\n"
              "    A: ofs=0 stride=0\n"
              "    Scanline: ofs=8192 len=197\n"
              "mipmap[0]: 32 x 32 @[8389,4294967295,4294967295,4294967295] stride=[32,0,0,0] "
              "scan@12629+2245\n");
}

using LayoutDeath = Layout;

TEST_F(LayoutDeath, PictureWithoutWidth)
{
    describe({.width = 0, .height = 5});
    EXPECT_DEATH(layout_full_size(), "bin/vexa_stillimage: .*`image_width > 0'");
}

TEST_F(LayoutDeath, PictureWithoutHeight)
{
    describe({.width = 5, .height = -1});
    EXPECT_DEATH(layout_full_size(), "bin/vexa_stillimage: .*`image_height > 0'");
}

TEST_F(Layout, ResetRestoresTheInitialValues)
{
    lay_out({.width = 200, .height = 100, .alpha = true, .frames = 3});
    secondary_image_mipmap_main.resize(2);
    secondary_image_mipmap[0].resize(2);
    reset_layout();
    EXPECT_EQ(mipmaps, 0);
    EXPECT_EQ(image_stride_Y + image_offset_A + image_decoded_size + image_decoded_unit_size, 0U);
    EXPECT_EQ(mipmap[0].width, 0);
    EXPECT_TRUE(secondary_image_mipmap_main.empty());
    EXPECT_TRUE(secondary_image_mipmap[0].empty());
}

} // namespace
