// Compares whole pyramids with the slow model over the whole frame buffer, so that a changed byte
// between or behind the planes is found, too. A guard page follows the buffer.
#include <algorithm>
#include <malloc.h>
#include <random>
#include <string>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/mipmap.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/framebuffer/mipmap_model.h"
#include "tests/unit/framebuffer/picture.h"

namespace {

struct colour_model {
    const char* name;
    uint8_t x_shift;
    uint8_t y_shift;
    bool monochrome;
    bool alpha;
};

class Pyramid : public framebuffer_test, public testing::WithParamInterface<colour_model> {
protected:
    static shape picture(int width, int height, uint64_t frames = 1)
    {
        const colour_model& model = GetParam();
        return {.width = width,
                .height = height,
                .x_shift = model.x_shift,
                .y_shift = model.y_shift,
                .monochrome = model.monochrome,
                .alpha = model.alpha,
                .frames = frames,
                .row_multiple = model.y_shift != 0 ? 32 : 16};
    }

    // Fills the buffer, scanline lists included, with noise and compares the pyramids.
    static void compare(const shape& wanted, uint32_t seed)
    {
        allocate(wanted);
        std::mt19937 random(seed);
        std::generate_n(scripted::buffer(), scripted::buffer_size(),
                        [&] { return static_cast<unsigned char>(random() >> 24); });
        if (wanted.alpha) {
            byte_at(main_image_mipmap.offset_A) = 0; // keeps the plane
        }
        std::vector<unsigned char> model = buffer_bytes();
        model_all_mipmaps(model);
        reset_mipmaps();
        const std::string text = printed([] { generate_all_mipmaps(); });
        ASSERT_EQ(text.find("warning"), std::string::npos) << text;
        ASSERT_EQ(mipmaps_avail, mipmaps);
        const bool same = std::equal(model.begin(), model.end(), scripted::buffer());
        ASSERT_TRUE(same) << wanted.width << " x " << wanted.height;
    }
};

TEST_P(Pyramid, SmallSizesMatchTheModel)
{
    std::mt19937 random(7);
    for (int i = 0; i < 400; ++i) {
        // At least one side is long enough for a level.
        const int a = 64 + static_cast<int>(random() % 77);
        const int b = 1 + static_cast<int>(random() % 140);
        compare(picture(i % 2 == 0 ? a : b, i % 2 == 0 ? b : a), static_cast<uint32_t>(i));
    }
}

TEST_P(Pyramid, EveryWidthMatchesTheModel)
{
    for (int width = 1; width <= 140; ++width) {
        compare(picture(width, 64 + width % 5), static_cast<uint32_t>(width));
    }
}

TEST_P(Pyramid, EveryHeightMatchesTheModel)
{
    for (int height = 1; height <= 140; ++height) {
        compare(picture(64 + height % 9, height), static_cast<uint32_t>(height));
    }
}

TEST_P(Pyramid, ExtremeShapesMatchTheModel)
{
    const std::pair<int, int> shapes[] = {{1, 16384}, {16384, 1},  {2, 9000},  {3, 9001},
                                          {9001, 3},  {65535, 1},  {1, 65535}, {65535, 2},
                                          {600, 600}, {1023, 257}, {513, 1025}};
    for (const auto& [width, height] : shapes) {
        compare(picture(width, height), 5);
    }
}

TEST_P(Pyramid, FramesMatchTheModel)
{
    compare(picture(67, 33, 3), 1);
    compare(picture(130, 70, 5), 2);
    compare(picture(1, 64, 3), 3);
}

// Two runs on the same planes, with different contents of fresh heap memory.
TEST_P(Pyramid, TwoRunsGiveTheSameBytes)
{
    std::vector<unsigned char> first;
    for (const int perturb : {0x55, 0xAA}) {
        mallopt(M_PERTURB, perturb);
        SetUp();
        allocate(picture(133, 77, 2));
        fill_planes(3);
        printed([] { generate_all_mipmaps(); });
        if (perturb == 0x55) {
            first = buffer_bytes();
        }
        EXPECT_EQ(buffer_bytes(), first);
    }
    mallopt(M_PERTURB, 0);
}

INSTANTIATE_TEST_SUITE_P(colour_models, Pyramid,
                         testing::Values(colour_model{"mono", 0, 0, true, false},
                                         colour_model{"mono_alpha", 0, 0, true, true},
                                         colour_model{"c420", 1, 1, false, false},
                                         colour_model{"c420_alpha", 1, 1, false, true},
                                         colour_model{"c422", 1, 0, false, false},
                                         colour_model{"c440", 0, 1, false, false},
                                         colour_model{"c444", 0, 0, false, false},
                                         colour_model{"c444_alpha", 0, 0, false, true}),
                         [](const auto& model) { return std::string(model.param.name); });

} // namespace
