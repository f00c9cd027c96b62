#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bin/framebuffer/mipmap_filter.h"

namespace {

using bytes = std::vector<unsigned char>;

// Three rows of exactly `columns` bytes, so that the sanitizer finds any read beyond them.
struct three_rows {
    bytes above;
    bytes middle;
    bytes below;

    source_rows view() const
    {
        return {above.data(), middle.data(), below.data(), middle.data(), below.data()};
    }
};

bytes random_row(size_t columns, std::mt19937& random)
{
    bytes row(columns);
    for (unsigned char& sample : row) {
        sample = static_cast<unsigned char>(random() >> 24);
    }
    return row;
}

three_rows random_rows(size_t columns, uint32_t seed)
{
    std::mt19937 random(seed);
    return {random_row(columns, random), random_row(columns, random), random_row(columns, random)};
}

// The formula, term by term.
unsigned char slow_sample(const three_rows& rows, size_t n, size_t k)
{
    const auto above = [&](size_t x) { return unsigned{rows.above[x]}; };
    const auto middle = [&](size_t x) { return unsigned{rows.middle[x]}; };
    const auto below = [&](size_t x) { return unsigned{rows.below[x]}; };
    if (k == 0 || k == n + 1) {
        const size_t x = k == 0 ? 0 : 2 * n + 1;
        return static_cast<unsigned char>((above(x) + 2 * middle(x) + below(x)) >> 2);
    }
    const size_t x = 2 * k;
    const unsigned sum = above(x - 1) + 2 * above(x) + above(x + 1) +
                         2 * (middle(x - 1) + 2 * middle(x) + middle(x + 1)) + below(x - 1) +
                         2 * below(x) + below(x + 1);
    return static_cast<unsigned char>((sum + 8) >> 4);
}

class MipmapFilter : public testing::TestWithParam<mipmap_kernel> {
protected:
    void SetUp() override
    {
        if (!runs_here(GetParam().needs)) {
            GTEST_SKIP() << "this processor has no " << GetParam().name;
        }
    }
};

TEST_P(MipmapFilter, EveryWidthMatchesTheFormula)
{
    for (size_t last = 1; last <= 300; ++last) {
        const three_rows rows = random_rows(2 * last + 2, static_cast<uint32_t>(last));
        bytes out(last + 1, 0xEE);
        GetParam().halve_row(out.data(), rows.view(), last);
        EXPECT_EQ(out[0], 0xEE);
        for (size_t k = 1; k <= last; ++k) {
            ASSERT_EQ(out[k], slow_sample(rows, last, k)) << last << ' ' << k;
        }
    }
}

TEST_P(MipmapFilter, LongRowsMatchTheFormula)
{
    for (const size_t last : {4095U, 8192U, 16383U, 32768U}) {
        const three_rows rows = random_rows(2 * last + 2, static_cast<uint32_t>(last));
        bytes out(last + 1);
        GetParam().halve_row(out.data(), rows.view(), last);
        for (size_t k = 1; k <= last; ++k) {
            ASSERT_EQ(out[k], slow_sample(rows, last, k)) << last << ' ' << k;
        }
    }
}

TEST_P(MipmapFilter, SumsOfExtremesDoNotOverflow)
{
    constexpr size_t last = 100;
    for (const unsigned pattern : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
        three_rows rows = random_rows(2 * last + 2, 1);
        std::mt19937 random(pattern);
        for (size_t x = 0; x < 2 * last + 2; ++x) {
            const unsigned bits = pattern == 0 ? static_cast<unsigned>(random()) : pattern;
            rows.above[x] = (bits & 1) != 0 ? 255 : 0;
            rows.middle[x] = (bits & 2) != 0 ? 255 : 0;
            rows.below[x] = (bits & 4) != 0 ? 255 : 0;
        }
        bytes out(last + 1);
        GetParam().halve_row(out.data(), rows.view(), last);
        for (size_t k = 1; k <= last; ++k) {
            ASSERT_EQ(out[k], slow_sample(rows, last, k)) << pattern << ' ' << k;
        }
    }
}

TEST_P(MipmapFilter, EmptyRangeWritesNothing)
{
    const three_rows rows = random_rows(2, 1);
    unsigned char out = 0xEE;
    GetParam().halve_row(&out, rows.view(), 0);
    EXPECT_EQ(out, 0xEE);
}

TEST_P(MipmapFilter, RowIsWrittenUpToItsStrideAndNoFurther)
{
    for (size_t samples = 1; samples <= 200; ++samples) {
        const size_t stride = (samples + 7) / 8 * 8;
        const three_rows rows = random_rows(filter_columns(samples, stride), 3);
        bytes out(stride + 8, 0xEE);
        filter_row(out.data(), rows.view(), samples, stride, GetParam().halve_row);
        for (size_t k = 0; k < stride; ++k) {
            ASSERT_EQ(out[k], k <= samples + 1 ? slow_sample(rows, samples, k) : 0)
                << samples << ' ' << k;
        }
        for (size_t k = stride; k < stride + 8; ++k) {
            ASSERT_EQ(out[k], 0xEE);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(versions, MipmapFilter,
                         testing::ValuesIn(mipmap_kernels().begin(), mipmap_kernels().end()),
                         [](const auto& variant) { return std::string(variant.param.name); });

TEST(MipmapFilterColumns, CountTwoForEachSampleThatFits)
{
    EXPECT_EQ(filter_columns(1, 8), 4U);
    EXPECT_EQ(filter_columns(7, 8), 16U);
    EXPECT_EQ(filter_columns(8, 8), 16U); // no further sample fits
    EXPECT_EQ(filter_columns(9, 16), 20U);
}

TEST(MipmapFilterChoice, TakesTheFirstSupportedVersion)
{
    row_halver wanted = nullptr;
    for (const auto& kernel : mipmap_kernels()) {
        if (wanted == nullptr && runs_here(kernel.needs)) {
            wanted = kernel.halve_row;
        }
    }
    EXPECT_EQ(best_version(mipmap_kernels()).halve_row, wanted);
    EXPECT_STREQ(mipmap_kernels().back().name, "portable");
    EXPECT_TRUE(runs_here(mipmap_kernels().back().needs));
}

} // namespace
