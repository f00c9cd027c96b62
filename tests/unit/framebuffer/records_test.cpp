#include <cstring>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/records.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/framebuffer/picture.h"
#include "wire/scanline_format.h"

namespace {

using namespace scanline_format;

class Records : public framebuffer_test {
protected:
    static void provide(const shape& picture)
    {
        lay_out(picture);
        scripted::provide_buffer(image_decoded_size);
    }
};

uint64_t frame_number_in(const mipmap_image& picture)
{
    uint64_t number = 0;
    memcpy(&number, &byte_at(picture.scanline_data_offset + at_frame_number), sizeof number);
    return number;
}

bool has_list(const mipmap_image& picture)
{
    return memcmp(&byte_at(picture.scanline_data_offset + at_end_mark), "END!", 4) == 0;
}

TEST_F(Records, MainRecordHoldsTheFullSizePicture)
{
    provide({.width = 100, .height = 70, .x_shift = 1, .y_shift = 1, .row_multiple = 32});
    EXPECT_EQ(printed([] { EXPECT_EQ(build_picture_records(), 0); }), "");
    const mipmap_image& main = main_image_mipmap;
    EXPECT_EQ(main.width, 100);
    EXPECT_EQ(main.height, 70);
    EXPECT_EQ(main.buffer_height, 96);
    EXPECT_EQ(main.offset_Y, 0U);
    EXPECT_EQ(main.offset_U, 10752U);
    EXPECT_EQ(main.offset_V, 13440U);
    EXPECT_EQ(main.offset_A, 4294967295U);
    EXPECT_EQ(main.stride_Y, 112U);
    EXPECT_EQ(main.stride_U, 56U);
    EXPECT_EQ(main.stride_V, 56U);
    EXPECT_EQ(main.stride_A, 0U);
    EXPECT_EQ(main.scanline_data_size, 197U);
    EXPECT_EQ(main.scanline_data_offset, 16128U);
    EXPECT_EQ(main.chroma_x_shift, 1);
    EXPECT_EQ(main.chroma_y_shift, 1);
    EXPECT_EQ(main.scale_x, 65536U);
    EXPECT_EQ(main.scale_y, 65536U);
    EXPECT_TRUE(has_list(main));
    EXPECT_TRUE(has_list(mipmap[0]));
    EXPECT_EQ(frame_number_in(main), 1U);
    EXPECT_EQ(frame_number_in(mipmap[0]), 1U);
}

TEST_F(Records, AbsentPlanesOfTheMainRecordAreMarked)
{
    provide({.monochrome = true, .alpha = true});
    build_picture_records();
    EXPECT_EQ(main_image_mipmap.offset_U, 4294967295U);
    EXPECT_EQ(main_image_mipmap.offset_V, 4294967295U);
    EXPECT_EQ(main_image_mipmap.stride_U, 0U);
    EXPECT_EQ(main_image_mipmap.offset_A, image_offset_A);
    EXPECT_EQ(main_image_mipmap.stride_A, 64U);
}

TEST_F(Records, FurtherFramesAreMovedByWholeUnits)
{
    provide({.width = 130, .height = 40, .alpha = true, .frames = 4});
    ASSERT_EQ(mipmaps, 2);
    build_picture_records();
    ASSERT_EQ(secondary_image_mipmap_main.size(), 3U);
    ASSERT_EQ(secondary_image_mipmap[1].size(), 3U);
    EXPECT_TRUE(secondary_image_mipmap[2].empty());
    for (uint64_t frame = 1; frame < 4; ++frame) {
        const uint64_t moved = frame * image_decoded_unit_size;
        const mipmap_image& main = secondary_image_mipmap_main[frame - 1];
        EXPECT_EQ(main.offset_Y, moved);
        EXPECT_EQ(main.offset_U, image_offset_U + moved);
        EXPECT_EQ(main.offset_V, image_offset_V + moved);
        EXPECT_EQ(main.offset_A, image_offset_A + moved);
        EXPECT_EQ(main.scanline_data_offset, image_scanline_data_buffer_offset + moved);
        EXPECT_EQ(main.width, 130);
        EXPECT_EQ(main.stride_A, image_stride_A);
        EXPECT_EQ(frame_number_in(main), frame + 1);
        for (int i = 0; i < mipmaps; ++i) {
            const mipmap_image& level = secondary_image_mipmap[i][frame - 1];
            EXPECT_EQ(level.offset_Y, mipmap[i].offset_Y + moved);
            EXPECT_EQ(level.offset_U, mipmap[i].offset_U + moved);
            EXPECT_EQ(level.offset_V, mipmap[i].offset_V + moved);
            EXPECT_EQ(level.offset_A, mipmap[i].offset_A + moved);
            EXPECT_EQ(level.scanline_data_offset, mipmap[i].scanline_data_offset + moved);
            EXPECT_EQ(level.width, mipmap[i].width);
            EXPECT_EQ(frame_number_in(level), frame + 1);
            EXPECT_TRUE(has_list(level));
        }
    }
}

TEST_F(Records, AbsentPlanesOfFurtherFramesStayMarked)
{
    provide({.monochrome = true, .frames = 2});
    build_picture_records();
    for (const mipmap_image& record :
         {secondary_image_mipmap_main.at(0), secondary_image_mipmap[0].at(0)}) {
        EXPECT_EQ(record.offset_U, 4294967295U);
        EXPECT_EQ(record.offset_V, 4294967295U);
        EXPECT_EQ(record.offset_A, 4294967295U);
    }
}

TEST_F(Records, SingleFrameEmptiesTheFurtherRecords)
{
    provide({});
    secondary_image_mipmap_main.resize(4);
    secondary_image_mipmap[0].resize(4);
    secondary_image_mipmap[9].resize(4);
    build_picture_records();
    EXPECT_TRUE(secondary_image_mipmap_main.empty());
    EXPECT_TRUE(secondary_image_mipmap[0].empty());
    EXPECT_TRUE(secondary_image_mipmap[9].empty());
}

TEST_F(Records, FailingListIsReportedAndTheOthersAreWritten)
{
    provide({.frames = 2}); // order of the lists: main, level, main of frame 1, its level
    for (int failing = 1; failing <= 4; ++failing) {
        scripted::provide_buffer(image_decoded_size);
        scripted::plan.fail_mapping = failing;
        errno = EIO; // left by an unrelated call
        EXPECT_EQ(printed([] { EXPECT_EQ(build_picture_records(), 0); }),
                  "Memory mapping scanline area failed, No such device or address\n"
                  "Error: Unable to set up scanline list\n");
        const mipmap_image written[] = {main_image_mipmap, mipmap[0],
                                        secondary_image_mipmap_main[0],
                                        secondary_image_mipmap[0][0]};
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(has_list(written[i]), i + 1 != failing) << failing << ' ' << i;
        }
    }
}

TEST_F(Records, TooManyRecordsForTheMemoryAreAnAllocationFailure)
{
    provide({.width = 16, .height = 16});
    image_decoded_frames = UINT64_C(1) << 62;
    EXPECT_EQ(printed([] { EXPECT_EQ(build_picture_records(), -1); }), "CNB allocation failed\n");
}

TEST_F(Records, ManyFramesServeTheSocketAndObeyASignal)
{
    provide({.width = 8, .height = 8, .frames = 300});
    scripted::plan.die_after_idle = 2; // before frame 128
    EXPECT_EQ(build_picture_records(), 0);
    EXPECT_EQ(scripted::log.idle_rounds, 2U);
    ASSERT_EQ(secondary_image_mipmap_main.size(), 128U); // no further records are built
    EXPECT_TRUE(has_list(secondary_image_mipmap_main[127]));
}

TEST_F(Records, StillPictureIsRecordedWithoutServingTheSocket)
{
    provide({.width = 300, .height = 300});
    build_picture_records();
    EXPECT_EQ(scripted::log.idle_rounds, 0U);
}

} // namespace
