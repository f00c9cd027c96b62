#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "bin/examine/jpeg_marker_walk.h"
#include "tests/support/guarded_bytes.h"

namespace {

using bytes = std::vector<unsigned char>;

bool holds(const bytes& file)
{
    const guarded_bytes guarded(file);
    return jpeg_marker_chain_holds(guarded.begin(), guarded.end());
}

bytes joined(const std::vector<bytes>& parts)
{
    bytes all;
    for (const bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

const bytes start_of_image = {0xFF, 0xD8};
const bytes end_of_image = {0xFF, 0xD9};
const bytes comment = {0xFF, 0xFE, 0, 3, 'c'};
const bytes garbage = bytes(8, 'x');

TEST(JpegMarkerWalk, ValidChainHolds)
{
    EXPECT_TRUE(holds(joined({start_of_image, comment, comment, end_of_image})));
}

TEST(JpegMarkerWalk, ChainOfFiveFollowedByGarbageBreaks)
{
    EXPECT_FALSE(holds(joined({start_of_image, comment, comment, comment, garbage})));
    EXPECT_FALSE(holds(joined({start_of_image, comment, comment, comment, comment, garbage})));
}

TEST(JpegMarkerWalk, SixMarkersAcceptAnyEnd)
{
    EXPECT_TRUE(
        holds(joined({start_of_image, comment, comment, comment, comment, comment, garbage})));
}

TEST(JpegMarkerWalk, FileWithoutMarkersBreaks)
{
    EXPECT_FALSE(holds(garbage));
}

TEST(JpegMarkerWalk, LengthPastTheEndHolds)
{
    EXPECT_TRUE(holds(joined({start_of_image, {0xFF, 0xE0, 0xFF, 0xFF}, garbage})));
}

TEST(JpegMarkerWalk, StopWithinTheLastTwoBytesHolds)
{
    EXPECT_TRUE(holds(joined({start_of_image, comment, {'x', 'x'}})));
    EXPECT_FALSE(holds(joined({start_of_image, comment, {'x', 'x', 'x'}})));
}

TEST(JpegMarkerWalk, LengthZeroContinuesAfterTheCode)
{
    EXPECT_FALSE(holds(joined({start_of_image, {0xFF, 0xE0, 0, 0}, garbage})));
    EXPECT_FALSE(holds({0xFF, 0xE0, 0, 2, 'x', 'x', 'x'}));
    EXPECT_TRUE(holds({0xFF, 0xE0, 0, 5, 'x', 'x', 'x'}));
}

TEST(JpegMarkerWalk, LengthIsBigEndianAndCountsItself)
{
    bytes file = {0xFF, 0xE0, 1, 2};
    file.resize(2 + 0x102, 'x');
    EXPECT_TRUE(holds(joined({file, end_of_image})));
    EXPECT_FALSE(holds(joined({file, {'x'}, end_of_image, garbage})));
}

TEST(JpegMarkerWalk, ScanDataIsSkippedToTheNextMarker)
{
    const bytes scan = {0xFF, 0xDA, 1, 2, 0xFF, 0, 3, 0xFF, 0, 0xFF, 0, 4};
    EXPECT_TRUE(holds(joined({start_of_image, scan, end_of_image})));
    EXPECT_FALSE(holds(joined({start_of_image, scan, end_of_image, garbage})));
}

TEST(JpegMarkerWalk, StuffedByteAtTheEndOfScanDataStaysInside)
{
    for (size_t length = 2; length <= 12; ++length) {
        bytes file = {0xFF, 0xDA, 1, 0xFF, 0, 0xFF, 0, 0xFF, 0, 0xFF, 0xFF, 0};
        file.resize(length);
        EXPECT_TRUE(holds(file)) << length;
    }
}

TEST(JpegMarkerWalk, MarkerTruncatedAfterItsCodeHolds)
{
    EXPECT_TRUE(holds(joined({start_of_image, {0xFF, 0xC0}})));
}

TEST(JpegMarkerWalk, TruncatedLengthHoldsWhateverItsValue)
{
    for (unsigned high = 0; high < 256; ++high) {
        const auto half_length = static_cast<unsigned char>(high);
        EXPECT_TRUE(holds(joined({{0xFF, 0xC0, 0, 11}, bytes(9, 0), {0xFF, 0xC0, half_length}})));
    }
}

TEST(JpegMarkerWalk, FewerThanTwoBytesHold)
{
    EXPECT_TRUE(holds({}));
    EXPECT_TRUE(holds({'x'}));
    EXPECT_TRUE(holds({'x', 'x'}));
}

// The rule in a second version: signed positions and one condition at a time.
bool holds_by_the_rule(const bytes& file)
{
    const long end = static_cast<long>(file.size());
    const long limit = end - 2;
    const auto at = [&](long i) { return i < end ? file[static_cast<size_t>(i)] : 0; };
    long count = 0;
    long p = 0;
    for (;;) {
        if (p > limit) {
            return true;
        }
        long stop = -1;
        if (at(p) != 0xFF) {
            stop = p;
        }
        long q = p + 2;
        if (stop < 0 && at(p + 1) == 0xDA) {
            while (q < limit && !(at(q) == 0xFF && at(q + 1) != 0)) {
                q += at(q) == 0xFF ? 2 : 1;
            }
        } else if (stop < 0 && at(p + 1) != 0xD8 && at(p + 1) != 0xD9) {
            if (end < p + 3) {
                stop = p + 2;
            } else {
                q += at(p + 2) * 256 + at(p + 3);
            }
        }
        if (stop < 0) {
            ++count;
            if (end < q) {
                stop = end;
            }
        }
        if (stop >= 0) {
            return count > 5 || stop >= limit;
        }
        p = q;
    }
}

TEST(JpegMarkerWalk, AgreesWithTheRuleOnRandomFiles)
{
    std::mt19937 random(7);
    const unsigned char likely[] = {0xFF, 0xFF, 0xFF, 0xD8, 0xD9, 0xDA, 0xC0, 0, 0, 1, 2, 3};
    unsigned broken = 0;
    for (int round = 0; round < 20000; ++round) {
        bytes file(random() % 24);
        for (unsigned char& byte : file) {
            byte = likely[random() % sizeof likely];
        }
        const bool expected = holds_by_the_rule(file);
        broken += expected ? 0U : 1U;
        ASSERT_EQ(holds(file), expected) << "round " << round;
    }
    EXPECT_GT(broken, 1000U);
}

} // namespace
