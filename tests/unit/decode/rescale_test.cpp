#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "bin/decode/rescale.h"

namespace {

using samples = std::vector<unsigned char>;

unsigned char plain_luma(int y)
{
    return static_cast<unsigned char>(y * 219 / 255 + 16);
}

unsigned char plain_chroma(int c)
{
    return static_cast<unsigned char>((c - 128) * 224 / 255 - 128);
}

unsigned char luma_of(unsigned char sample)
{
    jpeg_rescale_luma_to_16_235(&sample, 1);
    return sample;
}

unsigned char chroma_of(unsigned char sample)
{
    jpeg_rescale_chroma_to_16_240(&sample, 1);
    return sample;
}

TEST(Rescale, LumaEndsAndMiddle)
{
    EXPECT_EQ(luma_of(0), 16);
    EXPECT_EQ(luma_of(16), 29);
    EXPECT_EQ(luma_of(128), 125);
    EXPECT_EQ(luma_of(254), 234);
    EXPECT_EQ(luma_of(255), 235);
}

TEST(Rescale, ChromaTruncatesTowardZeroOnBothSides)
{
    EXPECT_EQ(chroma_of(0), 16);
    EXPECT_EQ(chroma_of(1), 17);
    EXPECT_EQ(chroma_of(127), 128);
    EXPECT_EQ(chroma_of(128), 128);
    EXPECT_EQ(chroma_of(129), 128);
    EXPECT_EQ(chroma_of(254), 238);
    EXPECT_EQ(chroma_of(255), 239);
}

TEST(Rescale, EmptyRangeBreaksAnInvariant)
{
    unsigned char none = 0;
    EXPECT_EXIT(jpeg_rescale_luma_to_16_235(&none, 0), testing::KilledBySignal(SIGABRT),
                "^bin/vexa_stillimage: jpeg_rescale_luma_to_16_235: Assertion "
                "`c != \\(size_t\\)0' failed.\n$");
    EXPECT_EXIT(jpeg_rescale_chroma_to_16_240(&none, 0), testing::KilledBySignal(SIGABRT),
                "^bin/vexa_stillimage: jpeg_rescale_chroma_to_16_240: Assertion "
                "`c != \\(size_t\\)0' failed.\n$");
}

TEST(Rescale, BestKernelIsTheFirstSupported)
{
    for (const rescale_kernel& kernel : rescale_kernels()) {
        if (runs_here(kernel.needs)) {
            EXPECT_EQ(&best_version(rescale_kernels()), &kernel);
            return;
        }
    }
    FAIL() << "no kernel is supported";
}

// Every version on every sample, at every position of a vector and in the remainder after it.
TEST(Rescale, EveryKernelIsExactForEverySampleAtEveryPosition)
{
    for (const rescale_kernel& kernel : rescale_kernels()) {
        if (!runs_here(kernel.needs)) {
            continue;
        }
        for (size_t shift = 0; shift < 64; ++shift) {
            samples luma(256 + shift);
            for (size_t i = 0; i < luma.size(); ++i) {
                luma[i] = static_cast<unsigned char>(i + 256 - shift);
            }
            samples chroma = luma;
            const samples input = luma;
            kernel.luma(luma.data(), luma.size());
            kernel.chroma(chroma.data(), chroma.size());
            for (size_t i = 0; i < input.size(); ++i) {
                ASSERT_EQ(luma[i], plain_luma(input[i])) << kernel.name << " at " << i;
                ASSERT_EQ(chroma[i], plain_chroma(input[i])) << kernel.name << " at " << i;
            }
        }
    }
}

// Counts 0 to 300 from every alignment; the surrounding bytes must not change.
TEST(Rescale, EveryKernelChangesExactlyTheGivenSamples)
{
    std::mt19937 random(1);
    samples input(64 + 300 + 64);
    std::generate(input.begin(), input.end(),
                  [&random] { return static_cast<unsigned char>(random()); });
    for (const rescale_kernel& kernel : rescale_kernels()) {
        if (!runs_here(kernel.needs)) {
            continue;
        }
        for (size_t start = 0; start < 64; start += 7) {
            for (size_t count = 0; count <= 300; ++count) {
                samples expected_luma = input;
                samples expected_chroma = input;
                for (size_t i = start; i < start + count; ++i) {
                    expected_luma[i] = plain_luma(input[i]);
                    expected_chroma[i] = plain_chroma(input[i]);
                }
                samples luma = input;
                samples chroma = input;
                kernel.luma(luma.data() + start, count);
                kernel.chroma(chroma.data() + start, count);
                ASSERT_EQ(luma, expected_luma) << kernel.name << " " << start << "+" << count;
                ASSERT_EQ(chroma, expected_chroma) << kernel.name << " " << start << "+" << count;
            }
        }
    }
}

} // namespace
