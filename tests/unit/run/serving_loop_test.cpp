#include "bin/vexa_stillimage.h"
#include "platform/run_state.h"
#include "platform/settings.h"
#include "tests/unit/run/run_fixture.h"

namespace {

class ServingLoop : public RunFixture {};

TEST_F(ServingLoop, ReadySetsTheFirstDeadline)
{
    scripted::set_time(5'000);
    auto_shutdown_delay_initial = 1'000;
    announce_ready();
    EXPECT_EQ(mono_auto_shutdown, 6'000U);
    ASSERT_EQ(scripted::log.ready.size(), 1U);
    EXPECT_EQ(scripted::log.ready[0], (scripted::status_line{1, "Ready to serve data"}));
}

TEST_F(ServingLoop, HugeDelayNeverEnds)
{
    auto_shutdown_delay_initial = UINT64_MAX;
    announce_ready();
    EXPECT_EQ(mono_auto_shutdown, UINT64_MAX);
}

TEST_F(ServingLoop, NoDelayEndsInTheFirstRound)
{
    auto_shutdown_delay_initial = 0;
    announce_ready();
    serve();
    EXPECT_EQ(printed(), "Auto terminate: picture\n");
    EXPECT_EQ(scripted::log.idle_rounds, 0U);
}

TEST_F(ServingLoop, AutoShutdownCanBeDisabled)
{
    auto_shutdown_delay_initial = 0;
    announce_ready();
    vexa_no_autoshutdown = true;
    scripted::plan.die_after_idle = 3;
    serve();
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(scripted::log.idle_rounds, 3U);
}

TEST_F(ServingLoop, DeadlineZeroMeansNever)
{
    mono_auto_shutdown = 0;
    scripted::plan.die_after_idle = 2;
    serve();
    EXPECT_EQ(printed(), "");
}

TEST_F(ServingLoop, DeadlineEndsServingNotBeforeItIsReached)
{
    scripted::set_time(1'000);
    mono_auto_shutdown = 21'000; // rounds take place at 1000, 11000 and 21000 us
    serve();
    EXPECT_EQ(scripted::log.idle_rounds, 2U);
    EXPECT_EQ(printed(), "Auto terminate: picture\n");
}

TEST_F(ServingLoop, SignalEndsItBeforeTheFirstRound)
{
    DIE4 = 1;
    vexa_oneshot = vexa_should_exit = true;
    serve();
    EXPECT_EQ(scripted::log.idle_rounds, 0U);
    EXPECT_EQ(printed(), "");
}

TEST_F(ServingLoop, OneshotServesExactlyOneRound)
{
    vexa_oneshot = vexa_should_exit = true;
    serve();
    EXPECT_EQ(scripted::log.idle_rounds, 1U);
    EXPECT_EQ(printed(), "Oneshot\n");
    EXPECT_EQ(calls("vexa_global_access_cache_cleanup_idle"), 1);
    EXPECT_EQ(calls("vexa_idle_housekeeping"), 1);
    EXPECT_EQ(calls("json_check_xmit"), 1);
    EXPECT_TRUE(scripted::log.wait_deadlines.empty());
}

TEST_F(ServingLoop, ExitRequestIsObeyed)
{
    scripted::plan.exit_after_idle = 2;
    serve();
    EXPECT_EQ(scripted::log.idle_rounds, 2U);
    EXPECT_EQ(printed(), "Caller requested to exit\n");
}

TEST_F(ServingLoop, NegativeCommResultEndsSilently)
{
    scripted::plan.comm_work = -1;
    serve();
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(calls("vexa_idle_housekeeping"), 0);
}

TEST_F(ServingLoop, NegativeClientResultEndsSilentlyEvenWithCommWork)
{
    scripted::plan.comm_work = 5;
    scripted::plan.client_work = -1;
    serve();
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(calls("vexa_idle_housekeeping"), 0);
}

TEST_F(ServingLoop, IdleRoundWaitsTenMilliseconds)
{
    scripted::set_time(1'000);
    scripted::plan.die_after_idle = 1;
    serve();
    ASSERT_EQ(scripted::log.wait_deadlines.size(), 1U);
    EXPECT_EQ(scripted::log.wait_deadlines[0], 11'000U);
}

TEST_F(ServingLoop, BusyRoundWaitsHalfAMillisecond)
{
    scripted::set_time(1'000);
    scripted::plan.client_work = 1;
    scripted::plan.die_after_idle = 1;
    serve();
    ASSERT_EQ(scripted::log.wait_deadlines.size(), 1U);
    EXPECT_EQ(scripted::log.wait_deadlines[0], 1'500U);
}

TEST_F(ServingLoop, CleanUpReportsAndFreesInOrder)
{
    clean_up();
    const std::string text = printed();
    EXPECT_EQ(text.find("--------------REMAINING CNB BUFFER ALLOCATIONS----------------\n"
                        "** PLEASE REVIEW FOR DEBUGGING PURPOSES TO CATCH CNB MEMORY LEAKS\n"
                        "============================\n"
                        "--------------------------------------------------------------\n"
                        "Cleaning up\nHousekeeping shut down\nFreeing cache "),
              0U);
    const std::vector<std::string> expected = {"close_vexa_client_contexts",
                                               "cnb_free",
                                               "cnb_alloc_print_remaining_buffers",
                                               "vexa_global_access_cache_cleanup_idle",
                                               "cnb_alloc_freeall",
                                               "vexa_free_all"};
    EXPECT_EQ(scripted::log.calls, expected);
}

TEST_F(ServingLoop, FreeAllMayRunTwice)
{
    free_all();
    free_all();
    EXPECT_EQ(calls("vexa_free_all"), 2);
}

} // namespace
