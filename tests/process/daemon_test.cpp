// A worker started with --daemon, as its clients, its host and its terminal see it.
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/worker.h"

using testing::HasSubstr;
using testing::Not;

namespace {

const std::string photograph = STILLIMAGE_TEST_DATA "/jpeg/landscape-420.jpg";

class Daemon : public testing::Test {
protected:
    worker::setting daemon_setting() const
    {
        return {{"--file", photograph, "--sock", socket, "--daemon", "--no-autoshutdown"}};
    }

    // Ends the daemon through a client and waits until it removes its socket, which it does last.
    void quit()
    {
        stillimage_client* client = nullptr;
        ASSERT_EQ(stillimage_connect(socket.c_str(), 30'000, &client), STILLIMAGE_OK);
        EXPECT_EQ(stillimage_quit(client, 30'000), STILLIMAGE_OK);
        stillimage_close(client);
        EXPECT_TRUE(eventually([&] { return home.sockets().empty(); }));
    }

    worker_home home;
    std::string socket = home.path("daemon.sock");
};

// Reads what is written to the terminal, appending it to `seen`, until `text` appears.
bool terminal_shows(int master, const std::string& text, std::string* seen)
{
    return eventually([&] {
        pollfd look = {master, POLLIN, 0};
        char piece[4096];
        while (poll(&look, 1, 0) > 0 && (look.revents & POLLIN) != 0) {
            const ssize_t got = read(master, piece, sizeof piece);
            if (got <= 0) {
                break;
            }
            seen->append(piece, static_cast<size_t>(got));
        }
        return seen->find(text) != std::string::npos;
    });
}

TEST_F(Daemon, OpenDescriptorsAreListedBehindTheirHeading)
{
    worker parent(home, daemon_setting());
    EXPECT_EQ(parent.wait_end(), 0);
    ASSERT_TRUE(parent.wait_printed("CNB buffer stats [final]:\n"));
    const std::string printed = parent.printed();
    const size_t begin =
        printed.find("Daemonizing\n--------------------- ON CLOSURE OF THIS PROCESS "
                     "(DEBUG) ----------------------\n");
    ASSERT_NE(begin, std::string::npos) << printed;
    EXPECT_LT(printed.find("CNB buffer stats:\n"), begin);
    EXPECT_GT(printed.find("Using CNB buffer"), begin);
    EXPECT_THAT(printed.substr(begin), HasSubstr(photograph)); // the picture file is open
    quit();
}

TEST_F(Daemon, ClientsThatConnectWhileItDetachesAreServed)
{
    for (int round = 0; round < 3; ++round) {
        const worker parent(home, daemon_setting());
        ASSERT_TRUE(eventually([&] { return access(socket.c_str(), F_OK) == 0; }));
        for (bool ready = false; !ready;) {
            stillimage_client* client = nullptr;
            ASSERT_EQ(stillimage_connect(socket.c_str(), 30'000, &client), STILLIMAGE_OK)
                << stillimage_last_error(client) << parent.printed();
            ASSERT_EQ(stillimage_ping(client, 30'000), STILLIMAGE_OK)
                << stillimage_last_error(client) << parent.printed();
            ready = stillimage_wait_ready(client, 0, 0) == STILLIMAGE_OK;
            stillimage_close(client);
        }
        quit();
    }
}

TEST_F(Daemon, ReadinessReachesAHostOnTheTerminalThatItDetachedFrom)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    char name[64];
    ASSERT_EQ(ptsname_r(master, name, sizeof name), 0);
    const int terminal = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    worker::setting how = daemon_setting();
    how.arguments.insert(how.arguments.end(), {"--status-fd", "1"});
    how.standard_fd = terminal;
    worker parent(home, how);
    std::string seen;
    EXPECT_TRUE(terminal_shows(master, R"({"ready": 1, "text": "Ready to serve data"})", &seen))
        << seen;
    EXPECT_EQ(parent.wait_end(), 0);
    EXPECT_THAT(seen, HasSubstr("Daemonizing"));
    EXPECT_THAT(seen, Not(HasSubstr("Using CNB buffer"))); // messages after detaching are dropped
    quit();
    close(terminal);
    close(master);
}

} // namespace
