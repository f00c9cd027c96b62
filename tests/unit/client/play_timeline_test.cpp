#include <gtest/gtest.h>

#include "client/tool/play_timeline.h"

namespace {

uint64_t common_of(const std::vector<uint64_t>& delays)
{
    std::vector<stillimage_timeline_entry> entries;
    for (const uint64_t delay : delays) {
        entries.push_back({0, delay, 1});
    }
    return common_delay({1, 1, 1, entries.size(), entries.data()});
}

TEST(PlayTimeline, IsReadFromTheStatusDocument)
{
    EXPECT_EQ(timeline_of(R"({"item": {"time duration": 360, "time scale": [100, 1]}})"),
              (timeline{360, {100, 1}}));
    EXPECT_EQ(timeline_of(R"({"item": {"time duration": 5, "time scale": [60000, 2002]}})"),
              (timeline{5, {30000, 1001}}));
}

TEST(PlayTimeline, InvalidValuesGiveTheDefaultTimeline)
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

TEST(PlayTimeline, CommonDelayIsTheGreatestCommonDivisor)
{
    EXPECT_EQ(common_of({10}), 10U);
    EXPECT_EQ(common_of({1}), 1U);
    EXPECT_EQ(common_of({10, 10, 10}), 10U);
    EXPECT_EQ(common_of({50, 10, 20}), 10U);
    EXPECT_EQ(common_of({65535, 65535}), 65535U);
    EXPECT_EQ(common_of({6, 10, 15}), 1U);
    EXPECT_EQ(common_of({4, 2, 8}), 2U);
    EXPECT_EQ(common_of({12, 12, 12, 9}), 3U); // the last delay counts, too
}

} // namespace
