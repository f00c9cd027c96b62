// Many clients and few descriptors.
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/serving.h"
#include "platform/time.h"
#include "tests/support/child_process.h"
#include "tests/support/comm_fixture.h"
#include "tests/support/open_descriptors.h"

using namespace comm_protocol;

namespace {

class ServerFlood : public comm_fixture {
protected:
    ServerFlood() { plain_item::make_ready(1); }

    // Connects this many clients at once, greets them all, and requests a frame for each.
    void serve_many(size_t count)
    {
        pump();
        std::vector<packet_client> clients;
        for (size_t i = 0; i < count; ++i) {
            clients.emplace_back(path);
            ASSERT_TRUE(clients.back().connected()) << i;
            ASSERT_TRUE(clients.back().send(encode(1, hello())));
        }
        pump();
        EXPECT_EQ(platform::connected_clients(), count);
        for (const packet_client& client : clients) {
            ASSERT_EQ(client.receive()->header.type, HELLO_ANSWER);
            ASSERT_TRUE(client.send(encode(2, get_frame{0, 0})));
        }
        pump();
        for (const packet_client& client : clients) {
            ASSERT_EQ(client.receive()->header.type, FRAME);
        }
        clients.clear();
        pump();
        EXPECT_EQ(platform::connected_clients(), 0U);
    }
};

// Runs `work` in a child process, whose limits it may change.
int serve_in_child(const std::function<int()>& work)
{
    return run_in_child([&work] {
        const int status = work();
        platform::close_comm_service();
        return status;
    });
}

packet_client connect_patiently(const std::string& path)
{
    for (int i = 0; i < 10'000; ++i) {
        packet_client client(path);
        if (client.connected()) {
            return client;
        }
        usleep(1000);
    }
    return {};
}

packet_header wait_for_answer(const packet_client& client)
{
    for (int i = 0; i < 10'000; ++i) {
        if (const auto answer = client.receive()) {
            return answer->header;
        }
        usleep(1000);
    }
    return {};
}

// 0 when each of a hundred clients was either greeted or refused as one too many, and enough were
// greeted.
int crowd_of_a_hundred(const std::string& path)
{
    std::vector<packet_client> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(connect_patiently(path));
        clients.back().send(encode(1, hello())); // fails when it was already refused
    }
    int greeted = 0;
    int refused = 0;
    for (const packet_client& client : clients) {
        const packet_header answer = wait_for_answer(client);
        greeted += answer.type == HELLO_ANSWER ? 1 : 0;
        refused += answer.type == ERROR ? 1 : 0;
    }
    return greeted > 20 && refused > 20 && greeted + refused == 100 ? 0 : 5;
}

bool raise_descriptors(rlim_t wanted)
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur >= wanted;
}

} // namespace

TEST_F(ServerFlood, ThousandClientsAtOnceAreServed)
{
    if (!raise_descriptors(2200)) {
        GTEST_SKIP() << "the descriptor limit is too low";
    }
    const size_t before = open_descriptors();
    serve_many(1000);
    EXPECT_EQ(open_descriptors(), before + 3);
}

TEST_F(ServerFlood, DescriptorNumbersAbove1023AreServed)
{
    if (!raise_descriptors(4300)) {
        GTEST_SKIP() << "the descriptor limit is too low";
    }
    serve_many(2000);
}

TEST_F(ServerFlood, ShortConnectionsLeaveNothingBehind)
{
    pump();
    const size_t before = open_descriptors();
    for (int i = 0; i < 5000; ++i) {
        const packet_client client(path);
        ASSERT_TRUE(client.connected()) << errno;
        if (i % 100 == 0) {
            pump();
        }
    }
    pump();
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(vexa_comm_server->clients.empty());
}

TEST_F(ServerFlood, SixtyFourDescriptorsServeSomeAndRefuseTheOthers)
{
    const int status = serve_in_child([this] {
        // The clients run in another process with its own limit.
        child_process crowd([this] { return crowd_of_a_hundred(path); });
        const rlimit few = {64, 64};
        if (setrlimit(RLIMIT_NOFILE, &few) != 0 || !platform::open_comm_service()) {
            return 2;
        }
        bool seen = false;
        for (int i = 0; i < 60'000 && !(seen && vexa_comm_server->clients.empty()); ++i) {
            if (idle_vexa_server_comm() < 0) {
                return 6;
            }
            seen = seen || platform::connected_clients() > 20;
            comm_socket_v4_server_from_client_readable(vexa_comm_server,
                                                       monotonic_clock_us() + 1000);
        }
        return crowd.wait();
    });
    EXPECT_EQ(status, 0);
}

TEST_F(ServerFlood, WithoutDescriptorsAcceptingPausesInsteadOfSpinning)
{
    const int status = serve_in_child([this] {
        pump();
        const packet_client first = greeted();
        std::vector<packet_client> waiting;
        waiting.emplace_back(path);
        waiting.emplace_back(path);
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 0; // no new descriptors at all
        setrlimit(RLIMIT_NOFILE, &limit);
        pump();
        if (vexa_comm_server->accepting) {
            return 2;
        }
        // Waiting connections do not keep the loop busy, and the other clients are served.
        const uint64_t before_us = monotonic_clock_us();
        comm_socket_v4_server_from_client_readable(vexa_comm_server, before_us + 20'000);
        if (monotonic_clock_us() - before_us < 20'000) {
            return 3;
        }
        if (!ask(first, encode_ping(2, PING, {})).has_value()) {
            return 4;
        }
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        packet_client leaving = std::move(waiting.back());
        waiting.pop_back();
        const_cast<packet_client&>(first).close();
        pump();
        return vexa_comm_server->accepting && vexa_comm_server->clients.size() == 2 ? 0 : 5;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(ServerFlood, AcceptingIsRetriedAfterASecond)
{
    const int status = serve_in_child([this] {
        pump();
        const packet_client waiting(path);
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &limit);
        comm_socket_v4_server& server = *vexa_comm_server;
        const uint64_t now_us = monotonic_clock_us();
        platform::run_round(server, now_us);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        platform::run_round(server, now_us + 900'000);
        if (server.accepting || !server.clients.empty()) {
            return 2;
        }
        platform::run_round(server, now_us + 1'200'000);
        platform::run_round(server, now_us + 1'200'000);
        return server.accepting && server.clients.size() == 1 ? 0 : 3;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(ServerFlood, FloodOfRequestsIsServedWithoutLossOrAGrowingQueue)
{
    const packet_client client = greeted();
    uint64_t sent = 0;
    uint64_t answered = 0;
    while (answered < 100'000) {
        while (sent < 100'000 && client.send(encode_ping(sent, PING, {sent}))) {
            ++sent;
        }
        pump();
        while (const auto answer = client.receive()) {
            ASSERT_EQ(answer->header.request, answered);
            ++answered;
        }
    }
    SUCCEED();
}

TEST_F(ServerFlood, RandomBytesDoNotAffectOtherClients)
{
    const packet_client polite = greeted();
    unsigned seed = 12345;
    for (int i = 0; i < 3000; ++i) {
        const packet_client rude = greeted();
        packet_bytes packet = encode_empty(3, static_cast<packet_type>(i % 12));
        const size_t size = packet_header_size + static_cast<size_t>(rand_r(&seed)) % 64;
        while (packet.size() < size) {
            packet.push_back(static_cast<unsigned char>(rand_r(&seed)));
        }
        packet[12] = static_cast<unsigned char>(packet.size());
        if (i % 3 == 0) {
            packet[static_cast<size_t>(rand_r(&seed)) % packet_header_size] ^= 0x55U;
        }
        ASSERT_TRUE(rude.send(packet));
        pump();
    }
    EXPECT_EQ(ask(polite, encode_ping(9, PING, {}))->header.type, PONG);
}
