#include <cstring>
#include <vector>

#include "bin/framebuffer/alpha_test.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/framebuffer/picture.h"

namespace {

TEST(AnyTransparent, OneSampleAnywhereInAnyWidthIsFound)
{
    for (size_t count = 1; count <= 300; ++count) {
        std::vector<unsigned char> samples(count, 254);
        EXPECT_FALSE(any_transparent(samples.data(), count)) << count;
        for (size_t at = 0; at < count; ++at) {
            samples[at] = 253;
            ASSERT_TRUE(any_transparent(samples.data(), count)) << count << ' ' << at;
            samples[at] = 255;
        }
    }
}

TEST(AnyTransparent, EveryValueUpTo253Counts)
{
    for (const size_t count : {1U, 64U, 65U}) {
        for (unsigned value = 0; value <= 255; ++value) {
            std::vector<unsigned char> samples(count, 255);
            samples[count / 2] = static_cast<unsigned char>(value);
            EXPECT_EQ(any_transparent(samples.data(), count), value <= 253) << value;
        }
    }
}

TEST(AnyTransparent, NoSamplesAreNotTransparent)
{
    EXPECT_FALSE(any_transparent(nullptr, 0));
}

class AlphaPlane : public framebuffer_test {
protected:
    // A plane that is opaque in the visible area and transparent everywhere else.
    static void provide(int width, int height)
    {
        allocate({.width = width, .height = height, .alpha = true});
        for (int row = 0; row < height; ++row) {
            memset(&byte_at(at(row, 0)), 254, static_cast<size_t>(width));
        }
    }

    static uint64_t at(int row, int column)
    {
        return main_image_mipmap.offset_A + static_cast<uint64_t>(row) * image_stride_A +
               static_cast<uint64_t>(column);
    }
};

TEST_F(AlphaPlane, OnlyVisibleSamplesCount)
{
    provide(70, 50);
    EXPECT_EQ(test_alpha_plane(main_image_mipmap), ALPHA_OPAQUE);
}

TEST_F(AlphaPlane, EachCornerCounts)
{
    for (const auto& [row, column] : {std::pair{0, 0}, {0, 69}, {49, 0}, {49, 69}}) {
        provide(70, 50);
        byte_at(at(row, column)) = 253;
        EXPECT_EQ(test_alpha_plane(main_image_mipmap), ALPHA_TRANSPARENT) << row << ' ' << column;
    }
}

TEST_F(AlphaPlane, TestStopsAtTheFirstTransparentRow)
{
    provide(70, 50);
    byte_at(at(3, 5)) = 0;
    const uint64_t before = scripted::log.mappings;
    test_alpha_plane(main_image_mipmap);
    EXPECT_EQ(scripted::log.mappings - before, 4U);
}

TEST_F(AlphaPlane, UnreadableRowIsSkipped)
{
    provide(70, 50);
    byte_at(at(3, 5)) = 0;
    scripted::plan.fail_mapping = 4;
    EXPECT_EQ(test_alpha_plane(main_image_mipmap), ALPHA_OPAQUE);
}

TEST_F(AlphaPlane, SocketIsServedBetweenBands)
{
    provide(10, 200);
    test_alpha_plane(main_image_mipmap);
    EXPECT_EQ(scripted::log.idle_rounds, 3U); // rows 64, 128, 192
}

TEST_F(AlphaPlane, SignalLeavesTheTestUndecided)
{
    provide(10, 200);
    scripted::plan.die_after_idle = 2;
    const uint64_t before = scripted::log.mappings;
    EXPECT_EQ(test_alpha_plane(main_image_mipmap), ALPHA_UNDECIDED);
    EXPECT_EQ(scripted::log.mappings - before, 128U);
}

} // namespace
