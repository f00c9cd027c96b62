#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "bin/decode/png_adam7_blocks.h"

namespace {

struct painter {
    const char* name;
    block_painter paint;
    size_t group, earliest; // the first sample of a group that is painted
};

constexpr painter painters[] = {
    {"8 of 8", paint_8_of_8, 8, 0}, {"4 of 8", paint_4_of_8, 8, 4}, {"4 of 4", paint_4_of_4, 4, 0},
    {"2 of 4", paint_2_of_4, 4, 2}, {"2 of 2", paint_2_of_2, 2, 0}, {"1 of 2", paint_1_of_2, 2, 1},
};

TEST(PngAdam7Blocks, EveryCountIsPaintedSampleBySample)
{
    std::mt19937 random(7);
    const auto any = [&random] { return static_cast<unsigned char>(random()); };
    for (const painter& p : painters) {
        for (size_t count = 0; count <= 70; ++count) {
            for (size_t shift = 0; shift < 3; ++shift) {
                std::vector<unsigned char> samples(shift + count);
                std::vector<unsigned char> row(shift + count * p.group + 64);
                std::ranges::generate(samples, any);
                std::ranges::generate(row, any);
                std::vector<unsigned char> expected = row;
                for (size_t i = 0; i < count; ++i) {
                    for (size_t k = p.earliest; k < p.group; ++k) {
                        expected[shift + i * p.group + k] = samples[shift + i];
                    }
                }
                p.paint(row.data() + shift, samples.data() + shift, count);
                ASSERT_EQ(row, expected) << p.name << ", " << count << " samples";
            }
        }
    }
}

} // namespace
