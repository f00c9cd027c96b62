#include <csignal>

#include "bin/vexa_stillimage.h"
#include "platform/run_state.h"
#include "tests/unit/run/run_fixture.h"

namespace {

class Termination : public RunFixture {
protected:
    void TearDown() override
    {
        for (const int number : {SIGTERM, SIGQUIT, SIGINT}) {
            signal(number, SIG_DFL);
        }
        RunFixture::TearDown();
    }
};

void raise_often(int number, int times)
{
    install_termination_handler();
    for (int i = 0; i < times; ++i) {
        raise(number);
    }
}

TEST_F(Termination, EachOfTheThreeSignalsCounts)
{
    install_termination_handler();
    raise(SIGTERM);
    raise(SIGQUIT);
    raise(SIGINT);
    EXPECT_EQ(DIE4, 3);
}

TEST_F(Termination, NineteenSignalsAreSurvived)
{
    raise_often(SIGTERM, 19);
    EXPECT_EQ(DIE4, 19);
}

TEST_F(Termination, TheTwentiethAborts)
{
    leave_stderr();
    EXPECT_EXIT(raise_often(SIGINT, 20), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(Termination, SignalsOfFailedWritesAreIgnored)
{
    ignore_signals_of_writes();
    for (const int number : {SIGPIPE, SIGXFSZ}) {
        raise(number);
        EXPECT_EQ(signal(number, SIG_DFL), SIG_IGN);
    }
}

} // namespace
