#include <cstring>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/mipmap.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/framebuffer/mipmap_model.h"
#include "tests/unit/framebuffer/picture.h"

namespace {

class MipmapGeneration : public framebuffer_test {
protected:
    // A picture of one plane, each row uniform, and its first level.
    static void provide_striped(int height, unsigned char level_fill)
    {
        allocate({.width = 16, .height = height, .monochrome = true});
        for (int y = 0; y < height; ++y) {
            memset(&byte_at(static_cast<uint64_t>(y) * 16), y * 4, 16);
        }
        memset(&byte_at(mipmap[0].offset_Y), level_fill,
               mipmap[0].scanline_data_offset - mipmap[0].offset_Y);
    }

    static unsigned level_row(int row)
    {
        return byte_at(mipmap[0].offset_Y + static_cast<uint64_t>(row) * mipmap[0].stride_Y);
    }

    static std::string generate_level()
    {
        return printed([] { gen_mipmap(&mipmap[0], &main_image_mipmap); });
    }
};

TEST_F(MipmapGeneration, EachLevelIsAnnounced)
{
    allocate({.width = 200, .height = 100, .frames = 2});
    EXPECT_EQ(printed([] { generate_all_mipmaps(); }), "Generating mipmap 100 x 50\n"
                                                       "Generating mipmap 50 x 25\n"
                                                       "Generating mipmap 100 x 50\n"
                                                       "Generating mipmap 50 x 25\n");
}

TEST_F(MipmapGeneration, RowsAreWeightedOneTwoOne)
{
    provide_striped(64, 0);
    generate_level();
    EXPECT_EQ(level_row(0), (0U + 2 * 0 + 4) / 4); // row 0 also serves as the row above it
    EXPECT_EQ(level_row(1), (4U + 2 * 8 + 12) / 4);
    EXPECT_EQ(level_row(31), (244U + 2 * 248 + 252) / 4);
}

TEST_F(MipmapGeneration, LastRowOfAnOddHeightServesAsItsOwnRowBelow)
{
    allocate({.width = 16, .height = 65, .monochrome = true});
    ASSERT_EQ(mipmap[0].height, 33);
    memset(&byte_at(UINT64_C(63) * 16), 100, 16);
    memset(&byte_at(UINT64_C(64) * 16), 200, 16);
    memset(&byte_at(UINT64_C(65) * 16), 255, 16); // not part of the picture
    memset(&byte_at(mipmap[0].offset_Y + UINT64_C(33) * 8), 0xEE, 8);
    generate_level();
    EXPECT_EQ(level_row(32), (100U + 2 * 200 + 200) / 4);
    EXPECT_EQ(level_row(33), 0xEEU);
}

TEST_F(MipmapGeneration, LevelOfWidthOneHasThreeSamples)
{
    allocate({.width = 1, .height = 64, .monochrome = true});
    memset(&byte_at(0), 40, image_scanline_data_buffer_offset);
    memset(&byte_at(mipmap[0].offset_Y), 0xEE, 8);
    generate_level();
    const unsigned char wanted[8] = {40, 40, 40, 0, 0, 0, 0, 0};
    EXPECT_EQ(memcmp(&byte_at(mipmap[0].offset_Y), wanted, sizeof wanted), 0);
}

TEST_F(MipmapGeneration, LevelsThatAreNotHalvesAreMadeWithAWarning)
{
    provide_striped(64, 0);
    mipmap[0].width = 9;
    EXPECT_EQ(generate_level(), "Generating mipmap 9 x 32\n"
                                "mipmap warning: mipmap width != 1/2 image width\n");
    EXPECT_EQ(level_row(1), 8U);
    mipmap[0].height = 31;
    mipmap[0].width = 8;
    EXPECT_EQ(generate_level(), "Generating mipmap 8 x 31\n"
                                "mipmap warning: mipmap width != 1/2 image height\n");
    mipmap[0].width = 7;
    EXPECT_EQ(generate_level(), "Generating mipmap 7 x 31\n"
                                "mipmap warning: mipmap width != 1/2 image height\n"
                                "mipmap warning: mipmap width != 1/2 image width\n");
}

TEST_F(MipmapGeneration, RecordWithoutLumaIsOnlyAnnounced)
{
    for (mipmap_image* record : {&mipmap[0], &main_image_mipmap}) {
        provide_striped(64, 0xEE);
        record->stride_Y = 0;
        EXPECT_EQ(generate_level(), "Generating mipmap 8 x 32\n");
        EXPECT_EQ(byte_at(mipmap[0].offset_Y), 0xEE);
        EXPECT_EQ(scripted::log.idle_rounds, 0U);
    }
}

TEST_F(MipmapGeneration, PlaneAbsentOnEitherSideIsSkipped)
{
    for (const bool in_source : {false, true}) {
        allocate({.alpha = true});
        fill_planes(1);
        memset(&byte_at(mipmap[0].offset_U), 0xEE, 32);
        (in_source ? main_image_mipmap : mipmap[0]).stride_U = 0;
        auto wanted = buffer_bytes();
        model_mipmap(wanted, mipmap[0], main_image_mipmap);
        generate_level();
        EXPECT_EQ(buffer_bytes(), wanted);
        EXPECT_EQ(byte_at(mipmap[0].offset_U), 0xEE);
    }
}

TEST_F(MipmapGeneration, SourceWithoutRowsMakesNone)
{
    provide_striped(64, 0xEE);
    main_image_mipmap.height = 0;
    generate_level();
    EXPECT_EQ(level_row(0), 0xEEU);
}

// For quartered chroma the rule would fill more rows than the plane has.
TEST_F(MipmapGeneration, SurplusRowsOfQuarteredChromaStayOffTheScanlineList)
{
    allocate({.width = 64, .height = 128, .x_shift = 2, .y_shift = 2});
    fill_planes(1);
    const uint64_t end_of_planes = mipmap[0].scanline_data_offset - 16;
    auto wanted = buffer_bytes();
    model_mipmap(wanted, mipmap[0], main_image_mipmap);
    const auto before = buffer_bytes();
    generate_level();
    const auto after = buffer_bytes();
    EXPECT_TRUE(std::equal(after.begin(), after.begin() + static_cast<ptrdiff_t>(end_of_planes),
                           wanted.begin()));
    EXPECT_TRUE(std::equal(after.begin() + static_cast<ptrdiff_t>(end_of_planes), after.end(),
                           before.begin() + static_cast<ptrdiff_t>(end_of_planes)));
}

// --- rows that cannot be mapped -----------------------------------------------------------------
// The rows are mapped in this order: above, middle, below, destination.

TEST_F(MipmapGeneration, MissingRowAboveIsReplacedByTheMiddleOne)
{
    provide_striped(64, 0xEE);
    scripted::plan.fail_mapping = 4 + 1;
    EXPECT_EQ(generate_level(), "Generating mipmap 8 x 32\n");
    EXPECT_EQ(level_row(1), (8U + 2 * 8 + 12) / 4);
    EXPECT_EQ(level_row(2), (12U + 2 * 16 + 20) / 4);
}

TEST_F(MipmapGeneration, MissingMiddleRowLeavesTheDestinationRowUnchanged)
{
    provide_striped(64, 0xEE);
    scripted::plan.fail_mapping = 4 + 2;
    EXPECT_EQ(generate_level(), "Generating mipmap 8 x 32\n");
    EXPECT_EQ(level_row(0), 1U);
    EXPECT_EQ(level_row(1), 0xEEU);
    EXPECT_EQ(level_row(2), 16U);
}

TEST_F(MipmapGeneration, MissingRowBelowIsReplacedByTheMiddleOne)
{
    provide_striped(64, 0xEE);
    scripted::plan.fail_mapping = 4 + 3;
    EXPECT_EQ(generate_level(), "Generating mipmap 8 x 32\n");
    EXPECT_EQ(level_row(1), (4U + 2 * 8 + 8) / 4);
}

TEST_F(MipmapGeneration, MissingDestinationRowIsReportedAndSkipped)
{
    provide_striped(64, 0xEE);
    scripted::plan.fail_mapping = 4 + 4;
    EXPECT_EQ(generate_level(), "Generating mipmap 8 x 32\n"
                                "Failed to memory-map drow\n");
    EXPECT_EQ(level_row(1), 0xEEU);
    EXPECT_EQ(level_row(2), 16U);
}

TEST_F(MipmapGeneration, DestinationRowMaps32BytesMoreThanItsStride)
{
    provide_striped(64, 0xEE);
    scripted::plan.unmappable = {mipmap[0].offset_Y + UINT64_C(32) * 8 + 31, 1};
    EXPECT_EQ(generate_level(), "Generating mipmap 8 x 32\nFailed to memory-map drow\n");
    EXPECT_EQ(level_row(31), 0xEEU);
    EXPECT_EQ(level_row(30), 240U);
}

// --- rows that end at the end of the buffer -----------------------------------------------------

mipmap_image luma_only(int width, int height, uint64_t stride, uint64_t offset)
{
    mipmap_image picture = {};
    picture.width = width;
    picture.height = picture.buffer_height = height;
    picture.stride_Y = stride;
    picture.offset_Y = offset;
    return picture;
}

TEST_F(MipmapGeneration, ColumnsBeyondTheBufferCountAsZero)
{
    for (const int width : {8, 16, 24, 40, 136}) {
        const auto stride = static_cast<uint64_t>(width);
        const uint64_t level_stride = (stride / 2 + 7) / 8 * 8;
        const uint64_t behind = level_stride + 32;
        mipmap_image level = luma_only(width / 2, 1, level_stride, 0);
        mipmap_image source = luma_only(width, 2, stride, behind); // ends with the buffer
        scripted::provide_buffer(behind + 2 * stride, 77);
        auto wanted = buffer_bytes();
        model_mipmap(wanted, level, source);
        printed([&] { gen_mipmap(&level, &source); });
        EXPECT_EQ(buffer_bytes(), wanted) << width;
    }
}

TEST_F(MipmapGeneration, LevelWiderThanItsSourceReadsNoFurtherThanTheBuffer)
{
    mipmap_image source = luma_only(8, 4, 8, 400);
    mipmap_image level = luma_only(100, 2, 104, 0);
    scripted::provide_buffer(432, 99);
    auto wanted = buffer_bytes();
    model_mipmap(wanted, level, source);
    printed([&] { gen_mipmap(&level, &source); });
    EXPECT_EQ(buffer_bytes(), wanted);
}

// --- socket and signals -------------------------------------------------------------------------

TEST_F(MipmapGeneration, SocketIsServedIn16OfEvery256Rows)
{
    allocate({.width = 1, .height = 1100, .monochrome = true}); // 550 rows: 16 + 16 + 16
    generate_level();
    EXPECT_EQ(scripted::log.idle_rounds, 48U);
}

TEST_F(MipmapGeneration, EachPlaneServesTheSocket)
{
    allocate({.width = 64, .height = 64, .alpha = true});
    generate_level();
    EXPECT_EQ(scripted::log.idle_rounds, 4U * 16);
}

TEST_F(MipmapGeneration, BusySocketIsServedUpToTenTimes)
{
    provide_striped(64, 0);
    scripted::plan.comm_work = 1;
    generate_level();
    EXPECT_EQ(scripted::log.idle_rounds, 160U);
}

TEST_F(MipmapGeneration, SignalStopsAtTheNextRow)
{
    provide_striped(64, 0xEE);
    scripted::plan.die_after_idle = 6; // before row 5
    generate_level();
    EXPECT_EQ(level_row(4), 32U);
    EXPECT_EQ(level_row(5), 40U);
    EXPECT_EQ(level_row(6), 0xEEU);
}

TEST_F(MipmapGeneration, SignalStopsPlanesAndLevelsButLevelsBecomeAvailable)
{
    allocate({.width = 128, .height = 128, .frames = 2});
    fill_planes(1);
    scripted::plan.die_after_idle = 3;
    auto wanted = buffer_bytes();
    EXPECT_EQ(printed([] { generate_all_mipmaps(); }), "Generating mipmap 64 x 64\n"
                                                       "Generating mipmap 32 x 32\n"
                                                       "Generating mipmap 64 x 64\n"
                                                       "Generating mipmap 32 x 32\n");
    auto model = wanted;
    model_mipmap(model, mipmap[0], main_image_mipmap);
    const uint64_t begin = mipmap[0].offset_Y;
    std::copy_n(model.begin() + static_cast<ptrdiff_t>(begin), 3 * 64,
                wanted.begin() + static_cast<ptrdiff_t>(begin));
    EXPECT_EQ(buffer_bytes(), wanted);
    EXPECT_EQ(mipmaps_avail, 2);
}

// --- generate_all_mipmaps -----------------------------------------------------------------------

TEST_F(MipmapGeneration, LevelsBecomeAvailableOnlyAtTheEnd)
{
    allocate({.width = 128, .height = 128, .frames = 3});
    int most = 0;
    scripted::plan.on_idle = [&] { most = std::max(most, mipmaps_avail); };
    printed([] { generate_all_mipmaps(); });
    EXPECT_EQ(most, 0);
    EXPECT_EQ(mipmaps_avail, 2);
}

TEST_F(MipmapGeneration, PictureWithoutLevelsIsDoneImmediately)
{
    allocate({.width = 20, .height = 20, .frames = 2});
    EXPECT_EQ(printed([] { generate_all_mipmaps(); }), "");
    EXPECT_EQ(mipmaps_avail, 0);
}

TEST_F(MipmapGeneration, SecondRunUpdatesTheLevels)
{
    allocate({.width = 70, .height = 70});
    fill_planes(1);
    printed([] { generate_all_mipmaps(); });
    fill_planes(2);
    auto wanted = buffer_bytes();
    model_all_mipmaps(wanted);
    printed([] { generate_all_mipmaps(); });
    EXPECT_EQ(buffer_bytes(), wanted);
    EXPECT_EQ(mipmaps_avail, 1);
}

using MipmapGenerationDeath = MipmapGeneration;

TEST_F(MipmapGenerationDeath, FewerRecordsThanFurtherFrames)
{
    allocate({.frames = 3});
    secondary_image_mipmap_main.resize(1);
    EXPECT_DEATH(generate_all_mipmaps(), "`i < secondary_image_mipmap_main.size\\(\\)'");
}

TEST_F(MipmapGenerationDeath, FewerLevelsThanFurtherFrames)
{
    allocate({.frames = 3});
    secondary_image_mipmap[0].resize(1);
    EXPECT_DEATH(generate_all_mipmaps(), "`i < secondary_image_mipmap\\[t\\].size\\(\\)'");
}

} // namespace
