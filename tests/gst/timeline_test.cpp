// The timeline's arithmetic, against times written down one by one.
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "gst/timeline.h"

namespace {

TEST(GstTimeline, DocumentTellsDurationAndScale)
{
    timeline played;
    read_timeline(R"({"item": {"time duration": 360, "time scale": [100, 1]}})", &played);
    EXPECT_EQ(played.duration, 360U);
    EXPECT_EQ(played.scale_numerator, 100U);
    EXPECT_EQ(played.scale_denominator, 1U);
}

TEST(GstTimeline, WhatMakesNoSenseStays)
{
    for (const char* text :
         {"", "{", "{}", R"({"item": {"time duration": 0, "time scale": [0, 0]}})",
          R"({"item": {"time duration": -5, "time scale": [100, 0]}})",
          R"({"item": {"time duration": 1e30, "time scale": "100"}})",
          R"({"item": {"time duration": null, "time scale": [1e9, 1]}})"}) {
        timeline played;
        read_timeline(text, &played);
        EXPECT_EQ(played.duration, 1U) << text;
        EXPECT_EQ(played.scale_numerator, 1U) << text;
        EXPECT_EQ(played.scale_denominator, 1U) << text;
    }
}

TEST(GstTimeline, UnitsAndTimesAreEachOthersInverse)
{
    for (const auto& [numerator, denominator] :
         {std::pair<uint64_t, uint64_t>{100, 1}, {1, 1}, {30, 1}, {30000, 1001}, {7, 3}}) {
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
}

TEST(GstTimeline, EveryFramesEndIsFoundFromAnywhereInItWithAnyGuess)
{
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        std::vector<int> shown; // frame at each unit
        for (int frame = 1; frame <= 12; ++frame) {
            shown.insert(shown.end(), 1 + random() % 40, frame);
        }
        for (size_t start = 0; start < shown.size(); ++start) {
            size_t end = start;
            while (end < shown.size() && shown[end] == shown[start]) {
                ++end;
            }
            const auto same = [&](uint64_t at) {
                EXPECT_LT(at, shown.size());
                return at < shown.size() && shown[at] == shown[start];
            };
            EXPECT_EQ(end_of_frame(start, random() % 50, shown.size(), same), end);
        }
    }
}

TEST(GstTimeline, RightGuessAsksTwice)
{
    int asked = 0;
    const auto same = [&](uint64_t at) {
        ++asked;
        return at < 30;
    };
    EXPECT_EQ(end_of_frame(20, 10, 100, same), 30U);
    EXPECT_EQ(asked, 2);
}

} // namespace
