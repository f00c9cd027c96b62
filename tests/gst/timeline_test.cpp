// The timeline's arithmetic, against times written down one by one.
#include <climits>
#include <utility>

#include <gtest/gtest.h>

#include "gst/timeline.h"

namespace {

TEST(GstTimeline, UnitsAndTimesAreEachOthersInverse)
{
    for (const auto& [numerator, denominator] :
         {std::pair<uint32_t, uint32_t>{100, 1}, {1, 1}, {30, 1}, {30000, 1001}, {7, 3}}) {
        timeline played;
        played.scale_numerator = numerator;
        played.scale_denominator = denominator;
        for (uint64_t units = 0; units < 1000; ++units) {
            const GstClockTime time = played.time_of(units);
            EXPECT_EQ(played.units_at(time), units);
            EXPECT_TRUE(time == 0 || played.units_at(time - 1) == units - 1);
        }
    }
    timeline hundredths;
    hundredths.scale_numerator = 100;
    EXPECT_EQ(hundredths.time_of(36), 360 * GST_MSECOND);
    EXPECT_EQ(hundredths.units_at(359'999'999), 35U);
}

TEST(GstTimeline, ScaleFinerThanAMicrosecondCountsAsOne)
{
    const timeline finest(timeline_facts{7, 1'000'000, 999'999});
    EXPECT_EQ(finest.duration, 7U);
    EXPECT_EQ(finest.scale_numerator, 1'000'000U);
    EXPECT_EQ(finest.scale_denominator, 999'999U);
    for (const timeline_facts& facts :
         {timeline_facts{7, 1'000'001, 1}, timeline_facts{7, 1, 1'000'001}}) {
        const timeline played(facts);
        EXPECT_EQ(played.duration, 7U);
        EXPECT_EQ(played.scale_numerator, 1U);
        EXPECT_EQ(played.scale_denominator, 1U);
    }
}

TEST(GstTimeline, EndIsThatOfAllLoops)
{
    timeline played;
    played.duration = 50;
    EXPECT_EQ(played.end(), 50U);
    played.loops = 3;
    EXPECT_EQ(played.end(), 150U);
    played.loops = 0;
    EXPECT_EQ(played.end(), UINT64_MAX);
    played.loops = -1;
    EXPECT_EQ(played.end(), UINT64_MAX);
    played.duration = 1'000'000'000'000'000;
    played.loops = INT_MAX;
    EXPECT_EQ(played.end(), UINT64_MAX);
}

} // namespace
