// The --daemon switch. The program calls a daemon() that this test provides.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <unistd.h>

#include "bin/vexa_stillimage.h"
#include "platform/settings.h"
#include "tests/support/jpeg_writer.h"
#include "tests/unit/run/run_fixture.h"

namespace {

struct daemon_call {
    int nochdir;
    int noclose;
};
std::optional<daemon_call> called;
int daemon_error = 0; // of the next call; 0: it succeeds without leaving this process

} // namespace

extern "C" int __wrap_daemon(int nochdir, int noclose);
extern "C" int __wrap_daemon(int nochdir, int noclose)
{
    called = daemon_call{nochdir, noclose};
    errno = daemon_error;
    return daemon_error == 0 ? 0 : -1;
}

namespace {

class Daemonize : public RunFixture {
protected:
    void SetUp() override
    {
        RunFixture::SetUp();
        scripted::set_picture(jpeg_writer::write(jpeg_writer::grey(40, 30)));
        called.reset();
        daemon_error = 0;
        vexa_oneshot = true;
        vexa_daemon = true;
    }
};

const char* const heading =
    "--------------------- ON CLOSURE OF THIS PROCESS (DEBUG) ----------------------\n";

TEST_F(Daemonize, HappensBetweenTheTwoLayoutsAndReopensTheServer)
{
    EXPECT_EQ(run_sequence(), 0);
    const std::string text = printed();
    const size_t begin = text.find(std::string("Daemonizing\n") + heading);
    ASSERT_NE(begin, std::string::npos) << text;
    EXPECT_LT(text.find("CNB buffer stats:\n"), begin);
    EXPECT_GT(text.find("Using CNB buffer"), begin);
    EXPECT_EQ(calls("confine_daemon"), 1);
    EXPECT_EQ(calls("comm_socket_v4_reopen_server"), 1);
    EXPECT_EQ(scripted::log.rebuilds, 3U); // after the write-back, in the child, and when ready
    ASSERT_TRUE(called.has_value());
    EXPECT_EQ(called->nochdir, 0);
}

TEST_F(Daemonize, FailureIsReportedAndTheRunContinues)
{
    daemon_error = EAGAIN;
    EXPECT_EQ(run_sequence(), 0);
    const std::string text = printed();
    EXPECT_NE(text.find("Daemonizing\nProblem daemon() " + std::string(strerror(EAGAIN)) + "\n" +
                        heading),
              std::string::npos)
        << text;
    EXPECT_EQ(calls("comm_socket_v4_reopen_server"), 1);
    EXPECT_EQ(scripted::log.ready.size(), 1U);
}

TEST_F(Daemonize, IsSkippedByDefault)
{
    vexa_daemon = false;
    EXPECT_EQ(run_sequence(), 0);
    EXPECT_FALSE(called.has_value());
    EXPECT_EQ(calls("confine_daemon"), 0);
    EXPECT_EQ(printed().find("Daemonizing"), std::string::npos);
}

// Runs the sequence with `fd` as standard descriptor `standard` and the null device as the other
// two. Returns daemon()'s argument noclose.
int noclose_with(int standard, int fd)
{
    int kept[3];
    const int null_device = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int i = 0; i < 3; ++i) {
        kept[i] = fcntl(i, F_DUPFD_CLOEXEC, 3);
        dup2(i == standard ? fd : null_device, i);
    }
    EXPECT_EQ(run_sequence(), 0);
    for (int i = 0; i < 3; ++i) {
        dup2(kept[i], i);
        close(kept[i]);
    }
    close(null_device);
    return called ? called->noclose : -1;
}

TEST_F(Daemonize, StandardDescriptorsWithoutATerminalStayOpen)
{
    const int null_device = open("/dev/null", O_RDWR | O_CLOEXEC);
    EXPECT_EQ(noclose_with(0, null_device), 1);
    close(null_device);
}

TEST_F(Daemonize, TerminalOnAnyOfTheThreeIsClosed)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    for (const int standard : {0, 1, 2}) {
        EXPECT_EQ(noclose_with(standard, terminal), 0) << standard;
        TearDown();
        SetUp();
    }
    close(terminal);
}

} // namespace
