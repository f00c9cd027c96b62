// When comm_socket_v4_server_from_client_readable returns. The tests check lower bounds of time,
// and that it returns at all.
#include <csignal>
#include <sys/time.h>

#include <gtest/gtest.h>

#include "platform/serving.h"
#include "platform/time.h"
#include "tests/support/comm_fixture.h"

using namespace comm_protocol;

namespace {

class ServerWait : public comm_fixture {
protected:
    ServerWait() { pump(); }

    // The microseconds that a wait took whose deadline was `ahead_us` in the future.
    static uint64_t wait(comm_socket_v4_server* server, uint64_t ahead_us)
    {
        const uint64_t before_us = monotonic_clock_us();
        comm_socket_v4_server_from_client_readable(server, before_us + ahead_us);
        return monotonic_clock_us() - before_us;
    }

    static constexpr uint64_t for_ever_us = 3'600'000'000;
};

} // namespace

TEST_F(ServerWait, ReturnsAtTheDeadlineWithoutClients)
{
    EXPECT_GE(wait(vexa_comm_server, 20'000), 20'000U);
    EXPECT_GE(wait(nullptr, 20'000), 20'000U);
}

TEST_F(ServerWait, DeadlineInThePastReturnsAtOnce)
{
    comm_socket_v4_server_from_client_readable(vexa_comm_server, 0);
    comm_socket_v4_server_from_client_readable(vexa_comm_server, monotonic_clock_us() - 1);
    comm_socket_v4_server_from_client_readable(nullptr, 0);
    SUCCEED();
}

TEST_F(ServerWait, DeadlineBelowAMillisecondIsObserved)
{
    for (int i = 0; i < 20; ++i) {
        EXPECT_GE(wait(vexa_comm_server, 500), 500U);
    }
}

TEST_F(ServerWait, ReadableClientEndsTheWait)
{
    const packet_client client = greeted();
    ASSERT_TRUE(client.send(encode_ping(2, PING, {})));
    wait(vexa_comm_server, for_ever_us);
    pump();
    EXPECT_EQ(client.receive()->header.request, 2U);
}

TEST_F(ServerWait, NewConnectionEndsTheWait)
{
    const packet_client client(path);
    wait(vexa_comm_server, for_ever_us);
    pump();
    EXPECT_EQ(vexa_comm_server->clients.size(), 1U);
}

TEST_F(ServerWait, ClientThatLeavesEndsTheWait)
{
    packet_client client = greeted();
    client.close();
    wait(vexa_comm_server, for_ever_us);
    pump();
    EXPECT_EQ(platform::connected_clients(), 0U);
}

TEST_F(ServerWait, EventsOfAnEarlierWaitEndTheNext)
{
    const packet_client client = greeted();
    ASSERT_TRUE(client.send(encode_ping(2, PING, {})));
    wait(vexa_comm_server, for_ever_us);
    wait(vexa_comm_server, for_ever_us);
    SUCCEED();
}

TEST_F(ServerWait, SignalEndsTheWait)
{
    static volatile sig_atomic_t signals = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { signals = signals + 1; };
    action.sa_flags = SA_RESTART;
    struct sigaction kept = {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &kept), 0);
    const itimerval soon = {{0, 10'000}, {0, 10'000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &soon, nullptr), 0);
    wait(vexa_comm_server, for_ever_us);
    wait(nullptr, for_ever_us);
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &kept, nullptr);
    EXPECT_GT(signals, 0);
}

TEST_F(ServerWait, IdleClientsDoNotEndTheWait)
{
    std::vector<packet_client> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(greeted());
    }
    EXPECT_GE(wait(vexa_comm_server, 20'000), 20'000U);
}

TEST_F(ServerWait, ClientThatDoesNotReadDoesNotEndTheWait)
{
    const packet_client client = greeted();
    plain_item::state.document.assign(1'000'000, 'x');
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(client.send(encode_empty(2, GET_STATUS)));
        pump();
    }
    ASSERT_FALSE(vexa_comm_server->home.blocked.empty());
    EXPECT_GE(wait(vexa_comm_server, 20'000), 20'000U);
}
