#include <ctime>

#include "bin/quickidle.h"
#include "tests/unit/run/run_fixture.h"

namespace {

class QuickIdle : public RunFixture {};

TEST_F(QuickIdle, OneRoundWhenThereIsNothingToDo)
{
    quickidle_comm();
    EXPECT_EQ(scripted::log.idle_rounds, 1U);
}

TEST_F(QuickIdle, TenRoundsAtMost)
{
    scripted::plan.comm_work = 1;
    quickidle_comm();
    EXPECT_EQ(scripted::log.idle_rounds, 10U);
}

TEST_F(QuickIdle, ClientWorkContinuesTheRounds)
{
    scripted::plan.client_work = 3;
    quickidle_comm();
    EXPECT_EQ(scripted::log.idle_rounds, 10U);
}

TEST_F(QuickIdle, StopsWhenTheSumIsNotPositive)
{
    scripted::plan.comm_work = 1;
    scripted::plan.client_work = -1;
    quickidle_comm();
    EXPECT_EQ(scripted::log.idle_rounds, 1U);
}

TEST_F(QuickIdle, SocketIsServedBeforeTheClients)
{
    std::string order;
    scripted::plan.on_idle = [&] { order += "socket "; };
    scripted::plan.on_client_idle = [&] { order += "clients "; };
    quickidle_comm();
    EXPECT_EQ(order, "socket clients ");
}

TEST_F(QuickIdle, SmallStepsServeEveryHalfMillisecond)
{
    scripted::set_time(10'000);
    start_quickidle_clock();
    for (uint64_t now_us = 10'000; now_us < 11'500; now_us += 100) {
        scripted::set_time(now_us);
        quickidle_when_due();
        EXPECT_EQ(scripted::log.idle_rounds, (now_us - 10'000) / 500);
    }
}

TEST_F(QuickIdle, StopsAsSoonAsTheWorkIsDone)
{
    scripted::plan.comm_work = 1;
    scripted::plan.on_idle = [] {
        if (scripted::log.idle_rounds == 4) {
            scripted::plan.comm_work = 0;
        }
    };
    quickidle_comm();
    EXPECT_EQ(scripted::log.idle_rounds, 4U);
}

uint64_t slept_us(bool slow)
{
    slow_decode = slow;
    timespec from = {};
    timespec to = {};
    clock_gettime(CLOCK_MONOTONIC, &from);
    quickidle_comm();
    clock_gettime(CLOCK_MONOTONIC, &to);
    return static_cast<uint64_t>((to.tv_sec - from.tv_sec) * 1'000'000 +
                                 (to.tv_nsec - from.tv_nsec) / 1000);
}

TEST_F(QuickIdle, SlowDecodeSleepsTenMilliseconds)
{
    EXPECT_GE(slept_us(true), 10'000U);
}

} // namespace
