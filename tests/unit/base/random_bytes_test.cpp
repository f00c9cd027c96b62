#include <algorithm>
#include <array>

#include <gtest/gtest.h>

#include "platform/standalone/base/random_bytes.h"

namespace {

TEST(RandomBytes, FillsAllOfALongRange)
{
    std::array<unsigned char, 4096> bytes = {};
    ASSERT_EQ(platform::random_bytes(bytes.data(), bytes.size()), 0);
    // A run of 64 zeros occurs once in 2^512 / 4096 attempts.
    EXPECT_EQ(std::search_n(bytes.begin(), bytes.end(), 64, 0), bytes.end());
}

TEST(RandomBytes, TwoCallsDiffer)
{
    EXPECT_NE(platform::random_hex(16), platform::random_hex(16));
}

TEST(RandomBytes, HexHasTwoLowerCaseDigitsAByte)
{
    const std::string text = platform::random_hex(33);
    EXPECT_EQ(text.size(), 66U);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos);
}

} // namespace
