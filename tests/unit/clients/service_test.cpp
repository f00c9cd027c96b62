#include <cerrno>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/standalone/clients/service.h"
#include "platform/time.h"
#include "tests/support/child_process.h"
#include "tests/support/comm_fixture.h"
#include "tests/support/refused_calls.h"

using namespace comm_protocol;
using plain_item::state;
using testing::ElementsAre;

namespace {

class Clients : public comm_fixture {};

} // namespace

TEST_F(Clients, OpeningMakesTheSocketBeforeAnyRound)
{
    EXPECT_FALSE(folder.has("socket"));
    EXPECT_EQ(vexa_comm_server, nullptr);
    ASSERT_TRUE(platform::open_comm_service());
    EXPECT_NE(vexa_comm_server, nullptr);
    EXPECT_TRUE(packet_client(path).connected());
}

TEST_F(Clients, RoundsWithoutASocketDoNothing)
{
    EXPECT_EQ(idle_vexa_server_comm(), 0);
    EXPECT_EQ(idle_vexa_client_contexts(), 0);
    EXPECT_FALSE(folder.has("socket"));
    EXPECT_FALSE(vexa_should_exit);
}

TEST_F(Clients, SocketThatCannotBeMadeIsReportedOnOneLine)
{
    state.socket = folder.path("none/socket");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(platform::open_comm_service());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Comm socket '" + state.socket + "': No such file or directory\n");
    EXPECT_EQ(vexa_comm_server, nullptr);
    EXPECT_EQ(idle_vexa_server_comm(), 0);
}

TEST_F(Clients, StaleSocketIsReplaced)
{
    EXPECT_EQ(run_in_child([] {
                  const bool opened = platform::open_comm_service();
                  _exit(opened ? 0 : 1); // skips the clean-up at exit
                  return 1;
              }),
              0);
    ASSERT_TRUE(folder.has("socket"));
    pump();
    EXPECT_TRUE(packet_client(path).connected());
}

TEST_F(Clients, LiveSocketIsRefused)
{
    pump();
    EXPECT_EQ(run_in_child([this] {
                  vexa_comm_server = nullptr;
                  testing::internal::CaptureStderr();
                  const bool refused = !platform::open_comm_service();
                  return refused && testing::internal::GetCapturedStderr().find(path) !=
                                        std::string::npos
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_TRUE(packet_client(path).connected());
}

TEST_F(Clients, TooFewDescriptorsAreReportedAtOnceAndLeaveNothing)
{
    // The socket itself needs two descriptors; with fewer than 16 more no picture can be served.
    for (size_t spare = 0; spare < 18; ++spare) {
        EXPECT_EQ(run_in_child([&] {
                      testing::internal::CaptureStderr();
                      const rlimit few = {64, 64};
                      setrlimit(RLIMIT_NOFILE, &few);
                      std::vector<unique_fd> taken;
                      for (int fd = dup(STDERR_FILENO); fd >= 0; fd = dup(STDERR_FILENO)) {
                          taken.emplace_back(fd);
                      }
                      taken.resize(taken.size() - spare);
                      if (platform::open_comm_service() || access(path.c_str(), F_OK) == 0) {
                          return 1;
                      }
                      char text[200] = {};
                      const ssize_t size = pread(STDERR_FILENO, text, sizeof text - 1, 0);
                      return size > 0 && std::string(text).ends_with("Too many open files\n") ? 0
                                                                                              : 3;
                  }),
                  0)
            << spare;
    }
}

TEST_F(Clients, EachSystemCallOfTheSocketMayFail)
{
    for (const char* call : {"epoll_create1", "socket", "bind", "listen", "epoll_ctl"}) {
        EXPECT_EQ(run_in_child([&] {
                      if (!refuse_calls({call}, ENOSPC)) {
                          return 2;
                      }
                      return platform::open_comm_service() || access(path.c_str(), F_OK) == 0 ? 1
                                                                                              : 0;
                  }),
                  0)
            << call;
    }
}

TEST_F(Clients, DaemonTakesOverTheLockWithTheSocket)
{
    pump();
    EXPECT_EQ(state.lock_refreshed, 0);
    EXPECT_EQ(comm_socket_v4_reopen_server(vexa_comm_server), 0);
    EXPECT_EQ(state.lock_refreshed, 1);
}

// During a decode, and while waiting for the buffer, there is no other housekeeping.
TEST_F(Clients, RoundsProcessWaitingSettingsAndStatus)
{
    pump();
    state.settings_looked_at = 0;
    state.status_flushed = 0;
    vexa_comm_server->next_look_us = 0;
    idle_vexa_server_comm();
    EXPECT_EQ(state.settings_looked_at, 1U);
    EXPECT_EQ(state.status_flushed, 1U);
}

TEST_F(Clients, DaemonTakesOverTheLockEvenWithoutTheSocket)
{
    pump();
    unique_fd kept = std::move(vexa_comm_server->listener.socket);
    testing::internal::CaptureStderr();
    EXPECT_EQ(comm_socket_v4_reopen_server(vexa_comm_server), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(state.lock_refreshed, 1);
    vexa_comm_server->listener.socket = std::move(kept);
}

TEST_F(Clients, ExitRemovesTheSocketFile)
{
    EXPECT_EQ(run_in_child([] {
                  exit(platform::open_comm_service() ? 0 : 1);
                  return 1;
              }),
              0);
    EXPECT_FALSE(folder.has("socket"));
}

TEST_F(Clients, ExitOfAForkedChildLeavesTheSocketFile)
{
    pump();
    EXPECT_EQ(run_in_child([] {
                  exit(0);
                  return 1;
              }),
              0);
    EXPECT_TRUE(folder.has("socket"));
}

TEST_F(Clients, ClosingTheServiceNotifiesClientsRemovesTheFileAndMayRunTwice)
{
    const packet_client client = greeted();
    platform::close_comm_service();
    EXPECT_TRUE(client.hung_up());
    EXPECT_FALSE(folder.has("socket"));
    EXPECT_EQ(vexa_comm_server, nullptr);
    platform::close_comm_service();
    close_vexa_client_contexts();
}

TEST_F(Clients, ClosedServiceMayBeReopened)
{
    greeted();
    platform::close_comm_service();
    const packet_client client = greeted();
    EXPECT_EQ(platform::connected_clients(), 1U);
}

TEST_F(Clients, DisconnectUsesTheRegisteredHandler)
{
    packet_client client = greeted();
    const unsigned long id = vexa_client_contexts.tracked.begin()->first;
    client.close();
    pump();
    EXPECT_THAT(state.left, ElementsAre(id));
    EXPECT_EQ(state.live_contexts, 0);
}

TEST_F(Clients, DisconnectReleasesEverythingWithoutAHandler)
{
    on_vexa_client_disconnect = nullptr;
    packet_client client = greeted();
    client.close();
    pump();
    EXPECT_EQ(platform::connected_clients(), 0U);
    my_client_disconnect_handler(nullptr);
}

TEST_F(Clients, ConnectedClientsCountsThoseGreeted)
{
    const packet_client silent = connect();
    EXPECT_EQ(platform::connected_clients(), 0U);
    packet_client first = greeted();
    const packet_client second = greeted();
    EXPECT_EQ(platform::connected_clients(), 2U);
    first.close();
    pump();
    EXPECT_EQ(platform::connected_clients(), 1U);
}

TEST_F(Clients, ConnectedClientDelaysTheShutdown)
{
    pump();
    mono_auto_shutdown = 5;
    pump();
    EXPECT_EQ(mono_auto_shutdown, 5U);
    const packet_client silent = connect();
    EXPECT_EQ(mono_auto_shutdown, 5U);
    const uint64_t before_us = monotonic_clock_us();
    const packet_client client = greeted();
    EXPECT_GE(mono_auto_shutdown, before_us + auto_shutdown_delay_initial);
}

TEST_F(Clients, ShutdownIsNeverAdvancedNorCreated)
{
    const packet_client client = greeted();
    EXPECT_EQ(mono_auto_shutdown, 0U);
    mono_auto_shutdown = UINT64_MAX - 1;
    pump();
    EXPECT_EQ(mono_auto_shutdown, UINT64_MAX - 1);
}

TEST_F(Clients, InfiniteShutdownDelayStaysInfinite)
{
    auto_shutdown_delay_initial = UINT64_MAX;
    mono_auto_shutdown = 1;
    const packet_client client = greeted();
    EXPECT_EQ(mono_auto_shutdown, UINT64_MAX);
}

TEST_F(Clients, ShutdownDelayOfZeroStaysDue)
{
    auto_shutdown_delay_initial = 0;
    mono_auto_shutdown = 1;
    const packet_client client = greeted();
    EXPECT_LE(mono_auto_shutdown, monotonic_clock_us());
}

TEST_F(Clients, RoundsInQuickSuccessionDoNotPollTheSockets)
{
    pump();
    vexa_comm_server->next_look_us = UINT64_MAX;
    const packet_client client(path);
    EXPECT_EQ(idle_vexa_server_comm(), 0);
    EXPECT_TRUE(vexa_comm_server->clients.empty());
    pump();
    EXPECT_EQ(vexa_comm_server->clients.size(), 1U);
}
