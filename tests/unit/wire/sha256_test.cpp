#include <string>

#include <gtest/gtest.h>

#include "wire/sha256.h"

namespace {

TEST(Sha256, StandardExampleHasItsWholeDigest)
{
    const std::array<unsigned char, 32> expected = {0xba, 0x78, 0x16, 0xbf, 0x8f, 0x01, 0xcf, 0xea,
                                                    0x41, 0x41, 0x40, 0xde, 0x5d, 0xae, 0x22, 0x23,
                                                    0xb0, 0x03, 0x61, 0xa3, 0x96, 0x17, 0x7a, 0x9c,
                                                    0xb4, 0x10, 0xff, 0x61, 0xf2, 0x00, 0x15, 0xad};
    EXPECT_EQ(wire::sha256("abc"), expected);
}

// Each length modulo the block size of 64 bytes is padded differently. The expected values come
// from sha256sum.
TEST(Sha256, IsRightAroundTheBlockSize)
{
    const auto hash = [](size_t length) { return wire::short_hash(std::string(length, 'a')); };
    EXPECT_EQ(hash(55), "9f4390f8d30c2dd92ec9");
    EXPECT_EQ(hash(56), "b35439a4ac6f0948b6d6");
    EXPECT_EQ(hash(63), "7d3e74a05d7db15bce4a");
    EXPECT_EQ(hash(64), "ffe054fe7ae0cb6dc65c");
    EXPECT_EQ(hash(1000), "41edece42d63e8d9bf51");
}

} // namespace
