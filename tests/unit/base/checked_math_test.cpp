#include <gtest/gtest.h>

#include "platform/standalone/base/checked_math.h"

namespace {

using platform::checked_add;
using platform::checked_multiply;
using platform::saturating_add;

TEST(CheckedMath, SumsThatFitAreReturned)
{
    uint64_t sum = 0;
    ASSERT_TRUE(checked_add(UINT64_MAX - 1, 1, &sum));
    EXPECT_EQ(sum, UINT64_MAX);
}

TEST(CheckedMath, SumsThatWrapAreRefused)
{
    uint64_t sum = 0;
    EXPECT_FALSE(checked_add(UINT64_MAX, 1, &sum));
}

TEST(CheckedMath, ProductsThatFitAreReturned)
{
    uint64_t product = 0;
    ASSERT_TRUE(checked_multiply(UINT64_C(1) << 32, (UINT64_C(1) << 32) - 1, &product));
    EXPECT_EQ(product, 0xFFFFFFFF00000000U);
}

TEST(CheckedMath, ProductsThatWrapAreRefused)
{
    uint64_t product = 0;
    EXPECT_FALSE(checked_multiply(UINT64_C(1) << 32, UINT64_C(1) << 32, &product));
}

TEST(CheckedMath, SaturatingSumStopsAtTheMaximum)
{
    EXPECT_EQ(saturating_add(5, 6), 11U);
    EXPECT_EQ(saturating_add(UINT64_MAX, 6), UINT64_MAX);
    EXPECT_EQ(saturating_add(UINT64_MAX, UINT64_MAX), UINT64_MAX);
}

} // namespace
