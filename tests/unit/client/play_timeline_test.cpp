#include <algorithm>
#include <numeric>
#include <random>

#include <gtest/gtest.h>

#include "client/tool/play_timeline.h"

namespace {

// Frames that are shown for these times, and how often one was asked for.
struct counted_frames {
    explicit counted_frames(const std::vector<uint64_t>& delays) : ends(delays)
    {
        std::partial_sum(ends.begin(), ends.end(), ends.begin());
    }
    uint64_t common()
    {
        return common_delay(ends.back(), [this](uint64_t moment) {
            ++questions;
            EXPECT_LT(moment, ends.back());
            const auto end = std::upper_bound(ends.begin(), ends.end(), moment);
            return static_cast<uint64_t>(end - ends.begin()) + 1;
        });
    }

    std::vector<uint64_t> ends;
    uint64_t questions = 0;
};

uint64_t common_of(const std::vector<uint64_t>& delays)
{
    return counted_frames(delays).common();
}

TEST(PlayTimeline, IsReadFromTheStatusDocument)
{
    EXPECT_EQ(timeline_of(R"({"item": {"time duration": 360, "time scale": [100, 1]}})"),
              (timeline{360, {100, 1}}));
    EXPECT_EQ(timeline_of(R"({"item": {"time duration": 5, "time scale": [60000, 2002]}})"),
              (timeline{5, {30000, 1001}}));
}

TEST(PlayTimeline, WhatMakesNoSenseIsOne)
{
    for (const char* document :
         {"", "{", "[]", "{}", R"({"item": []})",
          R"({"item": {"time duration": null, "time scale": [0, 0]}})",
          R"({"item": {"time duration": 0, "time scale": [1, 0]}})",
          R"({"item": {"time duration": -5, "time scale": [-1, -1]}})",
          R"({"item": {"time duration": 1e300, "time scale": [1e300, 1]}})",
          R"({"item": {"time duration": "9", "time scale": "100/1"}})",
          R"({"item": {"time scale": [100]}})", R"({"item": {"time scale": [1, 2000000]}})"}) {
        EXPECT_EQ(timeline_of(document), timeline{}) << document;
    }
}

TEST(PlayTimeline, CommonDelayIsTheDivisorOfAll)
{
    EXPECT_EQ(common_of({10}), 10U);
    EXPECT_EQ(common_of({1}), 1U);
    EXPECT_EQ(common_of({10, 10, 10}), 10U);
    EXPECT_EQ(common_of({50, 10, 20}), 10U);
    EXPECT_EQ(common_of({65535, 65535}), 65535U);
    EXPECT_EQ(common_of({6, 10, 15}), 1U);
    EXPECT_EQ(common_of({4, 2, 8}), 2U);
    EXPECT_EQ(common_of({12, 12, 12, 9}), 3U); // the last one counts
}

TEST(PlayTimeline, AnyDelaysAreFound)
{
    std::mt19937 random(1);
    for (int round = 0; round < 500; ++round) {
        const uint64_t factor = 1 + random() % 20;
        std::vector<uint64_t> delays(1 + random() % 12);
        uint64_t expected = 0;
        for (uint64_t& delay : delays) {
            delay = factor * (1 + random() % (round % 2 == 0 ? 5 : 500));
            expected = std::gcd(expected, delay);
        }
        ASSERT_EQ(common_of(delays), expected) << "round " << round;
    }
}

TEST(PlayTimeline, LikeDelaysCostThreeQuestionsAFrame)
{
    counted_frames frames(std::vector<uint64_t>(1000, 10));
    EXPECT_EQ(frames.common(), 10U);
    EXPECT_LE(frames.questions, 3010U);
}

TEST(PlayTimeline, SearchEndsWhenNothingIsLeftToFind)
{
    std::vector<uint64_t> delays(5000, 10);
    delays[1] = 7;
    counted_frames frames(delays);
    EXPECT_EQ(frames.common(), 1U);
    EXPECT_LE(frames.questions, 20U);
}

TEST(PlayTimeline, MoreThanTenThousandFramesAreNotSearched)
{
    EXPECT_EQ(common_of(std::vector<uint64_t>(10'000, 5)), 5U);
    counted_frames frames(std::vector<uint64_t>(20'000, 5));
    EXPECT_EQ(frames.common(), 1U);
    EXPECT_LE(frames.questions, 30'010U);
}

TEST(PlayTimeline, FrameThatIsNotToBeHadEndsTheSearch)
{
    int questions = 0;
    EXPECT_EQ(common_delay(100,
                           [&](uint64_t) -> uint64_t {
                               ++questions;
                               return 0;
                           }),
              1U);
    EXPECT_EQ(questions, 1);
}

TEST(PlayTimeline, NumbersInDisorderDoNotHoldItUp)
{
    std::mt19937 random(1);
    uint64_t questions = 0;
    const uint64_t common = common_delay(UINT64_C(1) << 50, [&](uint64_t) -> uint64_t {
        ++questions;
        return 1 + random() % 2;
    });
    EXPECT_GE(common, 1U);
    EXPECT_LE(questions, 10'000U * 110);
}

} // namespace
