// The stored GIFs against a plain version of the drawing rules: every frame, the whole frame
// buffer.
#include <filesystem>

#include <gtest/gtest.h>

#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "tests/support/file_contents.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/decode/gif_fixture.h"

namespace {

const std::filesystem::path folder = STILLIMAGE_TEST_DATA "/gif";

class GifCorpus : public gif_test {};

TEST_F(GifCorpus, EveryPictureIsDrawnByTheRules)
{
    size_t drawn = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (name == "empty-screen.gif" || name == "no-frames.gif") {
            continue;
        }
        expect_drawn_by_rules(read_test_file(entry.path()), name);
        ++drawn;
    }
    EXPECT_GE(drawn, 21U);
}

TEST_F(GifCorpus, StartTimesFollowVaryingDelays)
{
    expect_drawn_by_rules(read_test_file(folder / "varying-delays.gif"));
    EXPECT_EQ(image_mapping_points.size(), 4U);
    EXPECT_EQ(image_mapping_total, 360U);
}

TEST_F(GifCorpus, CarriedTransparentColourClearsPixels)
{
    expect_drawn_by_rules(read_test_file(folder / "transparent-colour-carried-over.gif"));
    size_t clear = 0;
    for (unsigned y = 0; y < 16; ++y) {
        for (unsigned x = 0; x < 24; ++x) {
            clear += pixel_of(1, x, y) == shown_pixel{16, 128, 128, 0} ? 1 : 0;
        }
    }
    EXPECT_GT(clear, 0U);
}

} // namespace
