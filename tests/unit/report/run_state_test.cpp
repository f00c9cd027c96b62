#include <gtest/gtest.h>

#include "platform/run_state.h"
#include "platform/standalone/report/run_state.h"

namespace {

void expect_initial_state()
{
    EXPECT_EQ(DIE4, 0);
    EXPECT_FALSE(vexa_should_exit);
    EXPECT_FALSE(vexa_ready);
    EXPECT_EQ(mono_auto_shutdown, 0U);
    EXPECT_EQ(auto_shutdown_delay_initial, 60'000'000U);
}

TEST(RunState, ResetRestoresTheValuesAtProgramStart)
{
    expect_initial_state();
    DIE4 = 4;
    vexa_should_exit = true;
    vexa_ready = true;
    mono_auto_shutdown = 5;
    auto_shutdown_delay_initial = 6;
    platform::reset_run_state();
    expect_initial_state();
}

} // namespace
