#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/standalone/item/clients.h"
#include "platform/time.h"
#include "tests/support/child_process.h"
#include "tests/unit/comm/comm_fixture.h"

using namespace comm_protocol;
using plain_item::state;
using testing::ElementsAre;

namespace {

class Clients : public comm_fixture {};

} // namespace

TEST_F(Clients, SocketIsMadeByTheFirstRound)
{
    EXPECT_FALSE(folder.has("socket"));
    EXPECT_EQ(vexa_comm_server, nullptr);
    EXPECT_EQ(idle_vexa_server_comm(), 0);
    EXPECT_TRUE(folder.has("socket"));
    EXPECT_NE(vexa_comm_server, nullptr);
}

TEST_F(Clients, WithoutTheServeLockNoSocketIsMade)
{
    state.holds_lock = false;
    EXPECT_EQ(idle_vexa_server_comm(), 0);
    EXPECT_EQ(idle_vexa_client_contexts(), 0);
    EXPECT_FALSE(folder.has("socket"));
    EXPECT_FALSE(vexa_should_exit);
}

TEST_F(Clients, SocketThatCannotBeMadeEndsTheRunWithOneLine)
{
    state.socket = folder.path("none/socket");
    testing::internal::CaptureStderr();
    EXPECT_LT(idle_vexa_server_comm(), 0);
    EXPECT_LT(idle_vexa_server_comm(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Comm socket '" + state.socket + "': No such file or directory\n");
    EXPECT_TRUE(vexa_should_exit);
}

TEST_F(Clients, StaleSocketIsReplaced)
{
    EXPECT_EQ(run_in_child([] {
                  idle_vexa_server_comm();
                  _exit(0); // without the clean-up of an exit
                  return 1;
              }),
              0);
    ASSERT_TRUE(folder.has("socket"));
    pump();
    EXPECT_TRUE(packet_client(path).connected());
}

TEST_F(Clients, LiveSocketEndsTheRun)
{
    pump();
    EXPECT_EQ(run_in_child([this] {
                  vexa_comm_server = nullptr;
                  testing::internal::CaptureStderr();
                  const bool refused = idle_vexa_server_comm() < 0;
                  return refused && testing::internal::GetCapturedStderr().find(path) !=
                                        std::string::npos
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_TRUE(packet_client(path).connected());
}

TEST_F(Clients, ExitRemovesTheSocketFile)
{
    EXPECT_EQ(run_in_child([] {
                  idle_vexa_server_comm();
                  exit(0);
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

TEST_F(Clients, ClosingTheServiceTellsClientsRemovesTheFileAndMayRunTwice)
{
    const packet_client client = greeted();
    close_comm_service();
    EXPECT_TRUE(client.hung_up());
    EXPECT_FALSE(folder.has("socket"));
    EXPECT_EQ(vexa_comm_server, nullptr);
    close_comm_service();
    close_vexa_client_contexts();
}

TEST_F(Clients, ServiceThatWasClosedMayBeginAnew)
{
    greeted();
    close_comm_service();
    const packet_client client = greeted();
    EXPECT_EQ(connected_clients(), 1U);
}

TEST_F(Clients, DisconnectGoesThroughTheRegisteredHandler)
{
    packet_client client = greeted();
    const unsigned long id = vexa_client_contexts.tracked.begin()->first;
    client.close();
    pump();
    EXPECT_THAT(state.left, ElementsAre(id));
    EXPECT_EQ(state.live_contexts, 0);
}

TEST_F(Clients, DisconnectGivesEverythingBackWithoutAHandler)
{
    on_vexa_client_disconnect = nullptr;
    packet_client client = greeted();
    client.close();
    pump();
    EXPECT_EQ(connected_clients(), 0U);
    my_client_disconnect_handler(nullptr);
}

TEST_F(Clients, ConnectedClientsCountsTheGreeted)
{
    const packet_client silent = connect();
    EXPECT_EQ(connected_clients(), 0U);
    packet_client first = greeted();
    const packet_client second = greeted();
    EXPECT_EQ(connected_clients(), 2U);
    first.close();
    pump();
    EXPECT_EQ(connected_clients(), 1U);
}

TEST_F(Clients, ConnectedClientPutsTheShutdownOff)
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

TEST_F(Clients, ShutdownIsNeverMovedForwardsNorSetWhereThereIsNone)
{
    const packet_client client = greeted();
    EXPECT_EQ(mono_auto_shutdown, 0U);
    mono_auto_shutdown = UINT64_MAX - 1;
    pump();
    EXPECT_EQ(mono_auto_shutdown, UINT64_MAX - 1);
}

TEST_F(Clients, EndlessShutdownDelayStaysEndless)
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

TEST_F(Clients, RoundsInQuickSuccessionCostNoLookAtTheSockets)
{
    pump();
    vexa_comm_server->next_look_us = UINT64_MAX;
    const packet_client client(path);
    EXPECT_EQ(idle_vexa_server_comm(), 0);
    EXPECT_TRUE(vexa_comm_server->clients.empty());
    pump();
    EXPECT_EQ(vexa_comm_server->clients.size(), 1U);
}
