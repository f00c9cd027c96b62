#include <ctime>

#include <gtest/gtest.h>

#include "platform/time.h"

namespace {

uint64_t system_clock_us()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<uint64_t>(now.tv_nsec) / 1000;
}

TEST(MonotonicClock, LiesBetweenTwoReadingsOfTheSystemClock)
{
    for (int i = 0; i < 1000; ++i) {
        const uint64_t before = system_clock_us();
        const uint64_t now = monotonic_clock_us();
        EXPECT_LE(before, now);
        EXPECT_LE(now, system_clock_us());
    }
}

} // namespace
