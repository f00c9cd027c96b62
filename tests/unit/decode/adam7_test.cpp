// Valid interlaced pictures: every byte of the planes, before each row and at the end.
#include <malloc.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/decode/planes.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "tests/support/file_contents.h"
#include "tests/unit/decode/adam7_fixture.h"
#include "tests/unit/framebuffer/mipmap_model.h"

using namespace adam7_tests;
using scripted::status_line;
using testing::HasSubstr;
using testing::Not;

namespace {

class DecodePngAdam7 : public Fixture {
protected:
    // Copies of the frame buffer after each pass and at the end; states[n] follows n passes.
    std::vector<bytes> states_of_decode()
    {
        std::vector<bytes> states(1);
        scripted::plan.on_idle = [&states] {
            if (count_calls("vexa_global_access_cache_cleanup_idle") == states.size()) {
                states.push_back(whole_buffer());
            }
        };
        EXPECT_EQ(decode(), 0);
        scripted::plan.on_idle = nullptr;
        states.push_back(whole_buffer());
        return states;
    }

    static bytes whole_buffer()
    {
        return {scripted::buffer(), scripted::buffer() + scripted::buffer_size()};
    }

    static bytes levels_of(const bytes& buffer)
    {
        return {buffer.begin() + static_cast<std::ptrdiff_t>(mipmap[0].offset_Y), buffer.end()};
    }
};

TEST_F(DecodePngAdam7, SmallPicturesOfEveryColourTypeAreDrawnByTheRules)
{
    for (const colour_form form : colour_forms) {
        for (uint32_t width = 1; width <= 9; ++width) {
            for (uint32_t height = 1; height <= 9; ++height) {
                expect_drawn_by_rules(write_png(random_picture(width, height, form)), 90);
            }
        }
    }
}

TEST_F(DecodePngAdam7, NoPictureUpTo64PixelsIsDrawnBeyondItsPlanes)
{
    size_t turn = 0;
    for (uint32_t width = 1; width <= 64; ++width) {
        for (uint32_t height = 1; height <= 64; ++height) {
            const colour_form form = colour_forms[turn++ % colour_forms.size()];
            expect_drawn_by_rules(write_png(random_picture(width, height, form)));
            EXPECT_THAT(printed, Not(HasSubstr("Failed to memory-map")));
        }
    }
}

TEST_F(DecodePngAdam7, WidePicturesAreDrawnByTheRules)
{
    for (const colour_form form : {colour_form{0, 1}, {2, 8}, {3, 8}, {4, 16}, {6, 8}}) {
        expect_drawn_by_rules(write_png(random_picture(16384, 3, form)));
        expect_drawn_by_rules(write_png(random_picture(3, 2000, form)));
        expect_drawn_by_rules(write_png(random_picture(1000, 37, form)));
    }
}

TEST_F(DecodePngAdam7, InterlacedTestPicturesAreDrawnByTheRules)
{
    for (const char* name : {"basi0g01.png", "basi0g04.png", "basi0g08.png", "basi2c08.png",
                             "basi2c16.png", "basi3p04.png", "basi3p08.png", "basi4a08.png",
                             "basi6a16.png", "rgb-adam7-cut.png", "s01i3p01.png", "s05i3p02.png"}) {
        SCOPED_TRACE(name);
        expect_drawn_by_rules(read_test_file("png/" + std::string(name)));
    }
}

TEST_F(DecodePngAdam7, OldHeapContentsAreNeverDrawn)
{
    for (const int perturb : {0x55, 0xAA}) {
        mallopt(M_PERTURB, perturb);
        for (const colour_form form : colour_forms) {
            expect_drawn_by_rules(write_png(random_picture(17, 11, form)));
        }
    }
    mallopt(M_PERTURB, 0);
}

TEST_F(DecodePngAdam7, FiveRowsTakeElevenInSevenPasses)
{
    open(write_png(random_picture(5, 5, {2, 8})));
    ASSERT_EQ(decode(), 0);
    std::vector<status_line> expected;
    for (const int percent : {0, 9, 18, 27, 36, 45, 54, 63, 72, 81, 90}) {
        expected.push_back({percent, "Decoding PNG"});
    }
    expected.push_back({100, ""});
    EXPECT_EQ(scripted::log.status, expected);
}

TEST_F(DecodePngAdam7, RowsOfPassesWithoutColumnsCount)
{
    open(write_png(random_picture(1, 5, {2, 8})));
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(scripted::log.status.size(), 12U);
    EXPECT_EQ(scripted::log.status[10], (status_line{90, "Decoding PNG"}));
}

TEST_F(DecodePngAdam7, OneBitGreyIsBlackForBothValues)
{
    png_spec spec = random_picture(16, 16, {0, 1});
    open(write_png(spec));
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(plane(PLANE_Y), bytes(256, 16));
}

TEST_F(DecodePngAdam7, IndexPastThePaletteIsABlackBlock)
{
    png_spec spec = {.depth = 8, .colour_type = 3, .interlace = 1};
    spec.chunks = {{"PLTE", {255, 255, 255}}};
    spec.rows = {0, 200};
    open(write_png(spec));
    ASSERT_EQ(decode(), 0);
    for (const size_t at : {0U, 7U, 7 * 16U, 7 * 16U + 7}) {
        EXPECT_EQ(plane(PLANE_Y)[at], 16);
        EXPECT_EQ(plane(PLANE_U)[at], 128);
        EXPECT_EQ(plane(PLANE_V)[at], 128);
    }
}

TEST_F(DecodePngAdam7, BlocksOfOnePixelCoverEightByEight)
{
    png_spec spec = {.depth = 8, .colour_type = 6, .interlace = 1};
    spec.rows = {0, 255, 0, 0, 77};
    open(write_png(spec), 1);
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(plane(PLANE_Y)[7 * 16 + 7], 81);
    EXPECT_EQ(plane(PLANE_U)[7 * 16 + 7], 90);
    EXPECT_EQ(plane(PLANE_V)[7 * 16 + 7], 239);
    EXPECT_EQ(plane(PLANE_A)[7 * 16 + 7], 77);
    EXPECT_EQ(plane(PLANE_Y)[8], 16); // black of the band, beside the block
    EXPECT_EQ(plane(PLANE_A)[8], 0);
    EXPECT_EQ(plane(PLANE_Y)[8 * 16], 1); // below the band
}

TEST_F(DecodePngAdam7, AlphaThatIsOpaqueInTheFirstPassIsDroppedDuringTheDecode)
{
    for (const uint32_t size : {1U, 9U, 20U, 40U}) {
        expect_drawn_by_rules(write_png(rgba_picture(size, size, 254, 0)), 33);
        EXPECT_THAT(printed,
                    HasSubstr("Image has opaque alpha channel. Disabling alpha channel.\n"));
        EXPECT_EQ(image_has_alpha_channel, 0);
    }
}

TEST_F(DecodePngAdam7, AlphaIsTestedAfterTheFirstPassOnly)
{
    expect_drawn_by_rules(write_png(rgba_picture(20, 20, 253, 255)));
    EXPECT_THAT(printed, Not(HasSubstr("opaque alpha")));
    EXPECT_NE(image_has_alpha_channel, 0);
}

TEST_F(DecodePngAdam7, ProvisionalPictureIsAnnouncedAfterTheFirstPass)
{
    open(write_png(random_picture(20, 20, {6, 8})));
    scripted::plan.on_idle = [] {
        const bool first_pass = scripted::log.status.size() <= 3; // which has 3 rows
        EXPECT_EQ(scripted::log.ready.size(), first_pass ? 0U : 1U);
    };
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(scripted::log.ready, (std::vector<status_line>{{-1, "Provisional image ready"}}));
    EXPECT_EQ(count_calls("vexa_global_access_cache_cleanup_idle"), 7U);
}

TEST_F(DecodePngAdam7, MipmapsAreMadeAfterPassesOneThreeAndSeven)
{
    for (const colour_form form : {colour_form{6, 8}, {0, 8}, {3, 4}, {4, 8}, {2, 16}}) {
        start_over();
        open(write_png(random_picture(150, 70, form)), 0, true);
        ASSERT_EQ(mipmaps, 2);
        const std::vector<bytes> states = states_of_decode();
        ASSERT_EQ(states.size(), 8U);
        for (const size_t passes : {1U, 3U, 7U}) {
            bytes modelled = states[passes];
            model_all_mipmaps(modelled);
            EXPECT_TRUE(states[passes] == modelled) << passes;
        }
        EXPECT_TRUE(levels_of(states[2]) == levels_of(states[1]));
        EXPECT_FALSE(levels_of(states[3]) == levels_of(states[1]));
        for (const size_t passes : {4U, 5U, 6U}) {
            EXPECT_TRUE(levels_of(states[passes]) == levels_of(states[3])) << passes;
        }
        EXPECT_FALSE(levels_of(states[7]) == levels_of(states[3]));
        EXPECT_EQ(mipmaps_avail, 2);
    }
}

TEST_F(DecodePngAdam7, DroppedAlphaDoesNotAffectOtherPlanesAndLevels)
{
    open(write_png(rgba_picture(150, 70, 255, 0)), 0, true);
    const std::vector<bytes> states = states_of_decode();
    ASSERT_EQ(states.size(), 8U);
    bytes modelled = states[7];
    model_all_mipmaps(modelled);
    EXPECT_TRUE(states[7] == modelled);
    const uint64_t y_size = image_stride_Y * static_cast<uint64_t>(image_buffer_height);
    const bytes first_alpha(states[1].begin() + static_cast<std::ptrdiff_t>(3 * y_size),
                            states[1].begin() + static_cast<std::ptrdiff_t>(4 * y_size));
    const bytes last_alpha(states[7].begin() + static_cast<std::ptrdiff_t>(3 * y_size),
                           states[7].begin() + static_cast<std::ptrdiff_t>(4 * y_size));
    EXPECT_EQ(first_alpha, last_alpha);
    EXPECT_EQ(image_offset_A, 0U);
}

} // namespace
