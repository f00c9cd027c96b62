#include <cerrno>
#include <cstring>
#include <tuple>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/scanline_list.h"
#include "platform/cnb.h"
#include "platform/settings.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/framebuffer/picture.h"
#include "wire/scanline_format.h"

namespace {

class ScanlineList : public framebuffer_test {
protected:
    static void provide(const shape& picture)
    {
        allocate(picture, 0xEE);
        // The buffer before any list is written.
        memset(scripted::buffer(), 0xEE, scripted::buffer_size());
    }
};

// A number of `size` bytes at `at` in the picture's scanline area.
uint64_t field(const mipmap_image& picture, uint64_t at, size_t size)
{
    uint64_t value = 0;
    for (size_t i = size; i-- > 0;) {
        value = value << 8 | byte_at(picture.scanline_data_offset + at + i);
    }
    return value;
}

void expect_bytes(const mipmap_image& picture, uint64_t at, std::vector<unsigned> wanted)
{
    for (size_t i = 0; i < wanted.size(); ++i) {
        EXPECT_EQ(field(picture, at + i, 1), wanted[i]) << "at " << at + i;
    }
}

TEST_F(ScanlineList, WorkedExampleOfTheDocumentation)
{
    provide({.width = 100, .height = 70, .x_shift = 1, .y_shift = 1, .row_multiple = 32});
    vexa_aspect_ratio = {16, 9};
    image_cnb_buffer = 7;
    ASSERT_EQ(setup_scanline_list(&mipmap[0], 1), 0);
    const unsigned char wanted[169] = {
        0x63, 0xE1, 0x47, 0x9D, 0xC5, 0x08, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x64, 0x00, 0x46, 0x00, 0x10, 0x00, 0x09, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00,
        0x01, 0x01, 0x07, 0x00, 0x38, 0x00, 0x20, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x80, 0x80, 0x80, 0x80, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x32, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x23, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x64, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,
        0x01, 0x00, 0x00, 0x01, 0x01, 0x00, 0xC5, 0x3F, 0x00, 0x00, 0x35, 0x55, 0x00, 0x00, 0x55,
        0x5B, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x22, 0x00, 0x10, 0x00, 0x10, 0x00, 0x22, 0x00,
        0x45, 0x4E, 0x44, 0x21};
    for (size_t i = 0; i < sizeof wanted; ++i) {
        EXPECT_EQ(byte_at(24965 + i), wanted[i]) << "at " << i;
    }
}

TEST_F(ScanlineList, EveryFieldOfAPictureWithAllPlanes)
{
    provide({.width = 300, .height = 200, .x_shift = 1, .alpha = true, .frames = 2});
    vexa_aspect_ratio = {4, 3};
    image_cnb_buffer = 0x12345; // truncated to 16 bits
    const mipmap_image& level = mipmap[1];
    ASSERT_EQ(setup_scanline_list(&mipmap[1], 0x1122334455667788), 0);
    EXPECT_EQ(field(level, 0, 4), 0x9D47E163U);
    EXPECT_EQ(field(level, 4, 4), 2245U);
    EXPECT_EQ(field(level, 8, 8), 0x1122334455667788U);
    EXPECT_EQ(field(level, 16, 2), 300U);
    EXPECT_EQ(field(level, 18, 2), 200U);
    EXPECT_EQ(field(level, 20, 2), 4U);
    EXPECT_EQ(field(level, 22, 2), 3U);
    EXPECT_EQ(field(level, 24, 4), 0U);
    expect_bytes(level, 28, {2, 0, 1, 1});
    EXPECT_EQ(field(level, 32, 2), 0x2345U);
    EXPECT_EQ(field(level, 34, 2), 80U); // the width is 75
    EXPECT_EQ(field(level, 36, 2), 40U);
    EXPECT_EQ(field(level, 38, 2), 40U);
    EXPECT_EQ(field(level, 40, 2), 80U);
    EXPECT_EQ(field(level, 42, 4), 0U);
    expect_bytes(level, 46, {0x80, 0x80, 0x80, 0x80, 1, 2, 0});
    EXPECT_EQ(field(level, 53, 8), 0U);
    EXPECT_EQ(field(level, 61, 8), 0U);
    EXPECT_EQ(field(level, 69, 8), 75U * 65536);
    EXPECT_EQ(field(level, 77, 8), 50U * 65536);
    EXPECT_EQ(field(level, 85, 8), 0U);
    EXPECT_EQ(field(level, 93, 8), 0U);
    EXPECT_EQ(field(level, 101, 8), 0U);
    EXPECT_EQ(field(level, 109, 8), 300U * 65536);
    EXPECT_EQ(field(level, 117, 8), 200U * 65536);
    EXPECT_EQ(field(level, 125, 8), 0U);
    expect_bytes(level, 133, {0, 1, 1, 0});
    expect_bytes(level, 137, {0, 0, 0, 0});
    EXPECT_EQ(field(level, 141, 4), level.offset_Y);
    EXPECT_EQ(field(level, 145, 4), level.offset_U);
    EXPECT_EQ(field(level, 149, 4), level.offset_V);
    EXPECT_EQ(field(level, 153, 4), level.offset_A);
    EXPECT_EQ(field(level, 157, 2), 49U);
    EXPECT_EQ(field(level, 159, 2), 49U);
    EXPECT_EQ(field(level, 161, 2), 49U);
    EXPECT_EQ(field(level, 163, 2), 49U);
    expect_bytes(level, 165, {'E', 'N', 'D', '!'});
}

TEST_F(ScanlineList, ChromaShiftsGiveMasksAndLastRows)
{
    provide({.width = 64, .height = 70, .y_shift = 1});
    setup_scanline_list(&main_image_mipmap, 1);
    expect_bytes(main_image_mipmap, 133, {0, 0, 0, 0});
    expect_bytes(main_image_mipmap, 137, {0, 1, 1, 0});
    EXPECT_EQ(field(main_image_mipmap, 157, 2), 69U);
    EXPECT_EQ(field(main_image_mipmap, 159, 2), 34U);
    EXPECT_EQ(field(main_image_mipmap, 161, 2), 34U);

    main_image_mipmap.chroma_x_shift = 2;
    main_image_mipmap.chroma_y_shift = 2;
    setup_scanline_list(&main_image_mipmap, 1);
    expect_bytes(main_image_mipmap, 133, {0, 3, 3, 0});
    expect_bytes(main_image_mipmap, 137, {0, 3, 3, 0});
    EXPECT_EQ(field(main_image_mipmap, 159, 2), 16U);
}

TEST_F(ScanlineList, AreaBehindTheRecordIsZeroAndNothingElseChanges)
{
    provide({.width = 64, .height = 64});
    for (mipmap_image* picture : {&main_image_mipmap, &mipmap[0]}) {
        const uint64_t begin = picture->scanline_data_offset;
        const uint64_t end = begin + picture->scanline_data_size;
        auto wanted = buffer_bytes();
        setup_scanline_list(picture, 1);
        for (uint64_t i = begin; i < end; ++i) {
            wanted[i] = i < begin + 169 ? byte_at(i) : 0;
        }
        EXPECT_EQ(buffer_bytes(), wanted);
    }
}

TEST_F(ScanlineList, MonochromeHasChromaMasksButNoChromaPlanes)
{
    provide({.width = 64, .height = 64, .x_shift = 1, .y_shift = 1, .monochrome = true});
    setup_scanline_list(&main_image_mipmap, 1);
    EXPECT_EQ(field(main_image_mipmap, 36, 2), 0U);
    EXPECT_EQ(field(main_image_mipmap, 38, 2), 0U);
    EXPECT_EQ(field(main_image_mipmap, 145, 4), 0xFFFFFFFFU);
    EXPECT_EQ(field(main_image_mipmap, 149, 4), 0xFFFFFFFFU);
    expect_bytes(main_image_mipmap, 133, {0, 1, 1, 0, 0, 1, 1, 0});
    expect_bytes(main_image_mipmap, 46, {0x80, 0x80, 0x80, 0x80});
}

TEST_F(ScanlineList, PictureWithoutAlphaKeepsTheLastAlphaRow)
{
    provide({.width = 64, .height = 50});
    setup_scanline_list(&main_image_mipmap, 1);
    EXPECT_EQ(field(main_image_mipmap, 40, 2), 0U);
    EXPECT_EQ(field(main_image_mipmap, 153, 4), 0xFFFFFFFFU);
    EXPECT_EQ(field(main_image_mipmap, 163, 2), 49U);
}

TEST_F(ScanlineList, AbsentPlaneIsRecognisedByItsStrideNotByItsOffset)
{
    provide({.width = 1, .height = 64, .x_shift = 1, .y_shift = 1, .row_multiple = 32});
    ASSERT_NE(mipmap[0].offset_U, absent_plane);
    setup_scanline_list(&mipmap[0], 1);
    EXPECT_EQ(field(mipmap[0], 145, 4), 0xFFFFFFFFU);
    EXPECT_EQ(field(mipmap[0], 149, 4), 0xFFFFFFFFU);
}

class AspectRatio : public framebuffer_test,
                    public testing::WithParamInterface<std::tuple<int_rational, int_rational>> {};

TEST_P(AspectRatio, IsThePicturesUnlessBothNumbersArePositive)
{
    const auto [set, wanted] = GetParam();
    allocate({.width = 640, .height = 480});
    vexa_aspect_ratio = set;
    setup_scanline_list(&main_image_mipmap, 1);
    EXPECT_EQ(field(main_image_mipmap, 20, 2), static_cast<uint64_t>(wanted.numerator));
    EXPECT_EQ(field(main_image_mipmap, 22, 2), static_cast<uint64_t>(wanted.denominator));
}

INSTANTIATE_TEST_SUITE_P(scanline_list, AspectRatio,
                         testing::Values(std::tuple{int_rational{16, 9}, int_rational{16, 9}},
                                         std::tuple{int_rational{1, 1}, int_rational{1, 1}},
                                         std::tuple{int_rational{0, 0}, int_rational{640, 480}},
                                         std::tuple{int_rational{16, 0}, int_rational{640, 480}},
                                         std::tuple{int_rational{0, 9}, int_rational{640, 480}},
                                         std::tuple{int_rational{-16, -9}, int_rational{640, 480}},
                                         std::tuple{int_rational{0x1FFFF, 0x10002},
                                                    int_rational{0xFFFF, 2}}));

TEST_F(ScanlineList, FourthFrameHasItsNumberAndItsOwnUnit)
{
    allocate({.width = 64, .height = 64, .alpha = true, .frames = 4});
    const mipmap_image& main = secondary_image_mipmap_main[2];
    EXPECT_EQ(field(main, 8, 8), 4U);
    EXPECT_EQ(field(main, 141, 4), 3 * image_decoded_unit_size);
    EXPECT_EQ(field(main, 153, 4), 3 * image_decoded_unit_size + image_offset_A);
    EXPECT_EQ(field(secondary_image_mipmap[0][2], 141, 4),
              3 * image_decoded_unit_size + mipmap[0].offset_Y);
}

TEST_F(ScanlineList, AreaIsWrittenAtItsExactOffset)
{
    allocate({});
    for (const uint64_t offset : {UINT64_C(0), UINT64_C(1), UINT64_C(4095), UINT64_C(4096),
                                  UINT64_C(4097), UINT64_C(8191)}) {
        scripted::provide_buffer(offset + 197, 0xEE); // the buffer ends with the area
        mipmap_image picture = main_image_mipmap;
        picture.scanline_data_offset = offset;
        ASSERT_EQ(setup_scanline_list(&picture, 1), 0);
        EXPECT_EQ(field(picture, 0, 4), 0x9D47E163U);
        EXPECT_EQ(field(picture, 165, 4), 0x21444E45U);
        EXPECT_EQ(offset == 0 ? 0xEE : byte_at(offset - 1), 0xEE);
    }
}

// 16.16 numbers are stored in signed 32 bits, so they are negative from 32768 pixels on.
TEST_F(ScanlineList, SizesFrom32768OnAreSignExtended)
{
    const std::pair<int, uint64_t> sizes[] = {
        {32767, 0x7FFF0000}, {32768, 0xFFFFFFFF80000000}, {65535, 0xFFFFFFFFFFFF0000}, {65536, 0}};
    for (const auto& [size, wanted] : sizes) {
        describe({.width = size, .height = size, .row_multiple = 1});
        scripted::provide_buffer(197);
        mipmap_image picture = {};
        picture.width = picture.height = size;
        picture.scanline_data_size = 197;
        setup_scanline_list(&picture, 1);
        for (const uint64_t at : {69U, 77U, 109U, 117U}) {
            EXPECT_EQ(field(picture, at, 8), wanted) << size << " at " << at;
        }
    }
}

TEST_F(ScanlineList, NarrowFieldsAreTruncated)
{
    describe({.width = 65537, .height = 65538, .row_multiple = 1});
    scripted::provide_buffer(197);
    mipmap_image picture = {};
    picture.width = 65537;
    picture.height = 65538;
    picture.stride_Y = 65552;
    picture.stride_U = 65536;
    picture.offset_Y = 0x1'0000'0010;
    picture.offset_U = 0x1'0000'0020;
    picture.scanline_data_size = 197;
    setup_scanline_list(&picture, 1);
    EXPECT_EQ(field(picture, 16, 2), 1U);
    EXPECT_EQ(field(picture, 18, 2), 2U);
    EXPECT_EQ(field(picture, 20, 2), 1U);
    EXPECT_EQ(field(picture, 22, 2), 2U);
    EXPECT_EQ(field(picture, 34, 2), 16U);
    EXPECT_EQ(field(picture, 36, 2), 0U);
    EXPECT_EQ(field(picture, 141, 4), 0x10U);
    EXPECT_EQ(field(picture, 145, 4), 0x20U); // the whole stride counts, not its lower 16 bits
    EXPECT_EQ(field(picture, 157, 2), 1U);
}

TEST_F(ScanlineList, HalvedChromaOfASingleRowHasNoLastRow)
{
    provide({.width = 64, .height = 1, .x_shift = 1, .y_shift = 1, .row_multiple = 32});
    setup_scanline_list(&main_image_mipmap, 1);
    EXPECT_EQ(field(main_image_mipmap, 157, 2), 0U);
    EXPECT_EQ(field(main_image_mipmap, 159, 2), 65535U);
    EXPECT_EQ(field(main_image_mipmap, 161, 2), 65535U);
}

TEST_F(ScanlineList, UnmappableAreaIsReportedAndRefused)
{
    provide({});
    scripted::plan.unmappable = {main_image_mipmap.scanline_data_offset, 1};
    EXPECT_EQ(printed([] { EXPECT_EQ(setup_scanline_list(&main_image_mipmap, 1), -1); }),
              "Memory mapping scanline area failed, Cannot allocate memory\n");
    EXPECT_EQ(printed([] { try_scanline_list(&main_image_mipmap, 1); }),
              "Memory mapping scanline area failed, Cannot allocate memory\n"
              "Error: Unable to set up scanline list\n");
}

TEST_F(ScanlineList, RewrittenListDiffersOnlyWhereThePictureDoes)
{
    provide({.alpha = true});
    setup_scanline_list(&main_image_mipmap, 1);
    auto wanted = buffer_bytes();
    main_image_mipmap.stride_A = 0;
    setup_scanline_list(&main_image_mipmap, 1);
    const uint64_t at = main_image_mipmap.scanline_data_offset;
    wanted[at + 40] = wanted[at + 41] = 0;
    memset(&wanted[at + 153], 0xFF, 4);
    EXPECT_EQ(buffer_bytes(), wanted);
}

TEST_F(ScanlineList, AreaOfExactlyOneRecordIsEnough)
{
    provide({});
    main_image_mipmap.scanline_data_size = 169;
    EXPECT_EQ(setup_scanline_list(&main_image_mipmap, 1), 0);
    EXPECT_EQ(byte_at(main_image_mipmap.scanline_data_offset + 169), 0xEE);
}

using ScanlineListDeath = ScanlineList;

TEST_F(ScanlineListDeath, AreaTooSmallForAnyOfThePieces)
{
    provide({});
    for (const uint64_t size : {31U, 33U, 164U, 168U}) {
        main_image_mipmap.scanline_data_size = size;
        EXPECT_DEATH(setup_scanline_list(&main_image_mipmap, 1),
                     "bin/vexa_stillimage: .*`w <= fence'");
    }
}

} // namespace
