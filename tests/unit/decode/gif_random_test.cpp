// Random animations: complete, truncated and interrupted.
#include <malloc.h>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "platform/run_state.h"
#include "tests/support/gif_reference.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/decode/gif_fixture.h"

using testing::Each;

namespace {

using file_bytes = std::vector<unsigned char>;

class RandomGif : public gif_test {
protected:
    file_bytes file;
};

struct dice {
    std::mt19937 random;
    unsigned below(unsigned limit) { return static_cast<unsigned>(random() % limit); }
};

std::vector<gif_colour> random_palette(dice& roll)
{
    std::vector<gif_colour> colours(2U << roll.below(4));
    for (gif_colour& colour : colours) {
        colour = {static_cast<unsigned char>(roll.below(256)),
                  static_cast<unsigned char>(roll.below(256)),
                  static_cast<unsigned char>(roll.below(256))};
    }
    return colours;
}

gif_frame_spec random_frame(dice& roll, unsigned width, unsigned height)
{
    gif_frame_spec frame = {.left = roll.below(width + 2),
                            .top = roll.below(height + 2),
                            .width = 1 + roll.below(width + 8),
                            .height = 1 + roll.below(height + 8),
                            .interlaced = roll.below(3) == 0};
    if (roll.below(4) != 0) {
        frame.control = gif_control_spec{.disposal = roll.below(8), .delay = roll.below(5)};
        if (roll.below(2) == 0) {
            frame.control->transparent = static_cast<unsigned char>(roll.below(10));
        }
    }
    if (roll.below(3) == 0) {
        frame.palette = random_palette(roll);
    }
    for (unsigned i = 0; i < frame.width * frame.height; ++i) {
        frame.indices.push_back(static_cast<unsigned char>(roll.below(10)));
    }
    return frame;
}

file_bytes random_animation(unsigned seed)
{
    dice roll{std::mt19937(seed)};
    gif_spec spec = {
        .width = 1 + roll.below(40), .height = 1 + roll.below(150), .background = roll.below(6)};
    spec.palette = roll.below(5) == 0 ? std::vector<gif_colour>{} : random_palette(roll);
    for (unsigned frames = 1 + roll.below(6); frames > 0; --frames) {
        spec.frames.push_back(random_frame(roll, spec.width, spec.height));
    }
    return write_gif(spec);
}

TEST_F(RandomGif, RandomAnimationsAreDrawnByTheRules)
{
    for (unsigned seed = 0; seed < 300; ++seed) {
        expect_drawn_by_rules(random_animation(seed), "seed " + std::to_string(seed));
    }
}

TEST_F(RandomGif, OldMemoryContentsMakeNoDifference)
{
    for (unsigned seed = 0; seed < 20; ++seed) {
        file = random_animation(seed);
        file.resize(file.size() - 20); // truncates the last frame
        file_bytes seen[2];
        for (const int perturb : {0x11, 0xEE}) {
            mallopt(M_PERTURB, perturb);
            reset_for_gif();
            open(file);
            EXPECT_EQ(decode(), 0);
            seen[perturb == 0x11 ? 0 : 1] = allocation();
        }
        mallopt(M_PERTURB, 0);
        EXPECT_EQ(seen[0], seen[1]) << seed;
    }
}

TEST_F(RandomGif, EveryTruncationIsDrawnUpToItsEnd)
{
    const file_bytes whole = random_animation(4);
    size_t drawn = 0;
    for (size_t size = 0; size < whole.size(); ++size) {
        reset_for_gif();
        file.assign(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        scripted::set_picture(file);
        testing::internal::CaptureStderr();
        const int examined = examine_gif_file();
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(examined == 0, !gif_reference::read(file).frames.empty()) << size;
        if (examined == 0) {
            expect_drawn_by_rules(file, "cut after " + std::to_string(size));
            ++drawn;
        }
    }
    EXPECT_GT(drawn, whole.size() / 2);
}

TEST_F(RandomGif, SignalEndsTheDecodeSilentlyAtAnyTime)
{
    file = random_animation(11); // several frames, each higher than 64 rows
    open(file);
    ASSERT_GT(image_height, 64);
    ASSERT_GT(image_decoded_frames, 1U);
    const file_bytes wanted = draw_gif_literally(file);
    EXPECT_EQ(decode(), 0);
    const auto rounds = static_cast<int>(scripted::log.idle_rounds);
    for (int n = 1; n <= rounds; ++n) {
        reset_for_gif();
        open(file);
        scripted::plan.die_after_idle = n;
        EXPECT_EQ(decode(), 0) << n;
        EXPECT_EQ(printed, "");
        EXPECT_LE(scripted::log.idle_rounds, static_cast<uint64_t>(n) + 1);
        const file_bytes seen = allocation();
        for (size_t i = 0; i < seen.size(); ++i) {
            ASSERT_TRUE(seen[i] == wanted[i] || seen[i] == 0) << n << " at " << i;
        }
    }
    reset_for_gif();
    open(file);
    DIE4 = 1;
    EXPECT_EQ(decode(), 0);
    EXPECT_THAT(allocation(), Each(0));
    EXPECT_TRUE(image_mapping_points.empty());
}

} // namespace
