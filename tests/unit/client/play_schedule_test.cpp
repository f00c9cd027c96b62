#include <vector>

#include <gtest/gtest.h>

#include "client/tool/play_schedule.h"

namespace {

constexpr rate hundredths = {100, 1};
constexpr uint64_t second = 1'000'000'000;

// The time positions of a whole stream.
std::vector<uint64_t> times(const timeline& played, const rate& frames, uint64_t loops)
{
    std::vector<uint64_t> result;
    for (play_position at(played, frames, loops); !at.over(); at.advance()) {
        result.push_back(at.moment());
    }
    return result;
}

// --- rate ----------------------------------------------------------------------------------------

TEST(PlaySchedule, RateIsTheLowestThatHitsEveryChange)
{
    const std::pair<uint64_t, rate> delays[] = {{1, {100, 1}},   {2, {50, 1}},  {3, {100, 3}},
                                                {4, {25, 1}},    {7, {100, 7}}, {10, {10, 1}},
                                                {37, {100, 37}}, {50, {2, 1}}};
    for (const auto& [delay, expected] : delays) {
        EXPECT_EQ(frame_rate_for({1000, hundredths}, delay), expected) << delay;
    }
}

TEST(PlaySchedule, LongDelaysAreDividedIntoEqualParts)
{
    const std::pair<uint64_t, rate> delays[] = {{51, {100, 17}}, {100, {2, 1}},      {500, {2, 1}},
                                                {53, {100, 1}},  {65535, {100, 17}}, {60, {10, 3}}};
    for (const auto& [delay, expected] : delays) {
        EXPECT_EQ(frame_rate_for({100'000, hundredths}, delay), expected) << delay;
    }
}

TEST(PlaySchedule, RateIsAtMostAHundred)
{
    EXPECT_EQ(frame_rate_for({1000, {1000, 1}}, 1), (rate{100, 1}));
    EXPECT_EQ(frame_rate_for({1000, {1000, 1}}, 9), (rate{100, 1}));
    EXPECT_EQ(frame_rate_for({1000, {1000, 1}}, 10), (rate{100, 1}));
    EXPECT_EQ(frame_rate_for({1000, {1000, 1}}, 40), (rate{25, 1}));
    EXPECT_EQ(frame_rate_for({1000, {1'000'000, 1}}, 1), (rate{100, 1}));
}

TEST(PlaySchedule, LongUnitsAreShownAtLeastTwiceASecond)
{
    EXPECT_EQ(frame_rate_for({10, {1, 1}}, 1), (rate{2, 1}));
    EXPECT_EQ(frame_rate_for({10, {3, 2}}, 5), (rate{3, 1}));
    EXPECT_EQ(frame_rate_for({10, {2, 1}}, 3), (rate{2, 1}));
    EXPECT_EQ(frame_rate_for({10, {1, 60}}, 1), (rate{2, 1}));
    EXPECT_EQ(frame_rate_for({10, {1, 1'000'000}}, 1), (rate{2, 1}));
}

// --- times --------------------------------------------------------------------------------------

TEST(PlaySchedule, ExactRateHitsEveryMultiple)
{
    EXPECT_EQ(times({40, hundredths}, {10, 1}, 1), (std::vector<uint64_t>{0, 10, 20, 30}));
    EXPECT_EQ(times({20, hundredths}, {10, 1}, 3), (std::vector<uint64_t>{0, 10, 0, 10, 0, 10}));
    EXPECT_EQ(times({9, hundredths}, {100, 3}, 2), (std::vector<uint64_t>{0, 3, 6, 0, 3, 6}));
}

TEST(PlaySchedule, OtherRatesKeepTheSpeed)
{
    // 25 frames a second: every 4 units, continuing from one round into the next.
    EXPECT_EQ(times({10, hundredths}, {25, 1}, 2), (std::vector<uint64_t>{0, 4, 8, 2, 6}));
    EXPECT_EQ(times({2, hundredths}, {200, 1}, 1), (std::vector<uint64_t>{0, 0, 1, 1}));
    // 0.5 frames a second: every 200 units, more than the whole timeline.
    EXPECT_EQ(times({70, hundredths}, {1, 2}, 4), (std::vector<uint64_t>{0, 60}));
    EXPECT_EQ(times({70, hundredths}, {1, 2}, 1), (std::vector<uint64_t>{0}));
}

TEST(PlaySchedule, StillLastsOneSecondARound)
{
    EXPECT_EQ(times({}, {25, 1}, 1), std::vector<uint64_t>(25));
    EXPECT_EQ(times({}, {25, 1}, 3), std::vector<uint64_t>(75));
    EXPECT_EQ(times({}, {30000, 1001}, 1), std::vector<uint64_t>(30));
}

TEST(PlaySchedule, TimesStayExactForHours)
{
    const rate ntsc = {30000, 1001};
    play_position at({1'000'000'000, hundredths}, ntsc, 0);
    for (uint64_t frame = 0; frame < 500'000; ++frame, at.advance()) {
        ASSERT_EQ(at.moment(), frame * 100 * 1001 / 30000) << frame;
    }
}

TEST(PlaySchedule, EndlessStreamIsNeverOver)
{
    play_position at({3, hundredths}, {100, 1}, 0);
    for (uint64_t frame = 0; frame < 1000; ++frame, at.advance()) {
        ASSERT_FALSE(at.over());
        ASSERT_EQ(at.moment(), frame % 3);
    }
}

// --- pace ----------------------------------------------------------------------------------------

TEST(PlaySchedule, FramesAreDueByTheRateFromTheStart)
{
    play_pace pace({100, 3}, 5 * second);
    for (uint64_t frame = 0; frame < 1000; ++frame) {
        ASSERT_EQ(pace.due(), 5 * second + frame * 30'000'000);
        pace.advance(pace.due());
    }
}

TEST(PlaySchedule, PaceDoesNotDriftAtAnyRate)
{
    play_pace pace({30000, 1001}, 0);
    for (uint64_t frame = 0; frame < 300'000; ++frame) {
        ASSERT_EQ(pace.due(), frame * 1001 * 100'000 / 3);
        pace.advance(pace.due());
    }
}

TEST(PlaySchedule, ShortDelaysAreCaughtUp)
{
    play_pace pace({10, 1}, 0);
    pace.advance(second / 10 + second / 2); // half a second after the next frame was due
    EXPECT_EQ(pace.due(), second / 10);
}

TEST(PlaySchedule, LongDelaysAreNotCaughtUp)
{
    play_pace pace({10, 1}, 0);
    pace.advance(second / 10 + second / 2 + 1);
    EXPECT_EQ(pace.due(), second / 10 + second / 2 + 1);
    pace.advance(pace.due());
    EXPECT_EQ(pace.due(), 2 * second / 10 + second / 2 + 1);
}

} // namespace
