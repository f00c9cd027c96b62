#include <fcntl.h>
#include <memory>
#include <new>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/standalone/comm/server.h"
#include "platform/standalone/comm/socket_channel.h"
#include "platform/time.h"
#include "tests/support/child_process.h"
#include "tests/support/memory_channel.h"
#include "tests/unit/comm/comm_fixture.h"

using namespace comm_protocol;
using platform::run_round;

namespace {

std::vector<unsigned long> left_ids;

// The server alone: a hello is answered with DONE, a ping with its size, an EXIT throws.
void answer_plainly(comm_socket_v4_client& client, common_pkt_parsing& request,
                    const unsigned char* /*packet*/, size_t size, uint64_t now_us)
{
    if (request.header.type == EXIT) {
        throw std::bad_alloc();
    }
    client.greeted = true;
    platform::send_answer(client, {encode_ping(request.header.request, PONG, {size}), {}}, now_us);
}

void note_leaving(comm_socket_v4_client& client)
{
    left_ids.push_back(client.id);
}

constexpr size_t connections_in_a_row = 3000;

// 0 when every connection was made at the first attempt and answered.
int keep_connecting(const std::string& path)
{
    for (size_t i = 0; i < connections_in_a_row; ++i) {
        const packet_client client(path);
        pollfd readable = {client.fd(), POLLIN, 0};
        if (!client.connected() || !client.send(encode(1, hello())) ||
            poll(&readable, 1, 10'000) != 1 || !client.receive().has_value()) {
            return 1;
        }
    }
    return 0;
}

class Server : public testing::Test {
protected:
    Server() { left_ids.clear(); }
    ~Server() override
    {
        if (server != nullptr) {
            platform::close_listener(&server->listener);
        }
    }

    void start(const platform::server_limits& limits = {})
    {
        server = platform::make_server({answer_plainly, note_leaving}, limits);
        ASSERT_NE(server, nullptr);
        ASSERT_TRUE(platform::start_listening(*server, path));
    }

    // Rounds until one does nothing.
    void pump()
    {
        while (run_round(*server, now_us) > 0) {
        }
    }

    packet_client connect()
    {
        packet_client client(path);
        pump();
        return client;
    }

    packet_client greeted()
    {
        packet_client client = connect();
        EXPECT_TRUE(client.send(encode(1, hello())));
        pump();
        EXPECT_TRUE(client.receive().has_value());
        return client;
    }

    // Sends pings, without reading, until the server's answers no longer fit into the socket.
    void stop_reading(const packet_client& client)
    {
        for (int i = 0; i < 100'000 && server->home.blocked.empty(); ++i) {
            ASSERT_TRUE(client.send(encode_ping(2, PING, {})));
            pump();
        }
        ASSERT_EQ(server->home.blocked.size(), 1U);
    }

    temporary_folder folder;
    std::string path = folder.path("socket");
    std::unique_ptr<comm_socket_v4_server> server;
    uint64_t now_us = 1'000'000'000;
};

} // namespace

TEST_F(Server, OnePacketOfAClientIsReadInARound)
{
    start();
    const packet_client client = greeted();
    ASSERT_TRUE(client.send(encode_ping(2, PING, {})));
    ASSERT_TRUE(client.send(encode_ping(3, PING, {})));
    EXPECT_EQ(run_round(*server, now_us), 1);
    EXPECT_EQ(client.receive()->header.request, 2U);
    EXPECT_FALSE(client.receive().has_value());
    EXPECT_EQ(run_round(*server, now_us), 1);
    EXPECT_EQ(client.receive()->header.request, 3U);
    EXPECT_EQ(run_round(*server, now_us), 0);
}

TEST_F(Server, LargestPacketIsTakenWhole)
{
    start();
    const packet_client client = greeted();
    const packet_bytes largest =
        encode(2, set_metadata{"n", std::string(max_packet_size - packet_header_size - 9, 'v')});
    ASSERT_EQ(largest.size(), max_packet_size);
    ASSERT_TRUE(client.send(largest));
    pump();
    EXPECT_EQ(client.receive()->as<ping>().cookie, max_packet_size);
}

TEST_F(Server, OversizedPacketIsRefusedAndItsClientDropped)
{
    start();
    const packet_client client = greeted();
    packet_bytes packet = encode_ping(2, PING, {});
    packet.resize(100'000);
    ASSERT_TRUE(client.send(packet));
    pump();
    expect_error(client.receive(), BAD_PACKET, 0, "malformed packet");
    EXPECT_TRUE(client.hung_up());
    EXPECT_EQ(left_ids.size(), 1U);
}

TEST_F(Server, PacketWithAWrongLengthFieldIsRefused)
{
    start();
    for (const int wrong : {-1, 1}) {
        const packet_client client = greeted();
        packet_bytes packet = encode_ping(2, PING, {});
        packet[12] = static_cast<unsigned char>(packet[12] + wrong);
        ASSERT_TRUE(client.send(packet));
        pump();
        expect_error(client.receive(), BAD_PACKET, 0, "malformed packet");
        EXPECT_TRUE(client.hung_up());
    }
}

TEST_F(Server, RefusalIsReadThoughRequestsWereStillUnderWay)
{
    start();
    const packet_client client = connect();
    ASSERT_TRUE(client.send_bytes("nonsense"));
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(client.send(encode_ping(2, PING, {})));
    }
    pump();
    expect_error(client.receive(), BAD_PACKET, 0, "malformed packet");
    EXPECT_TRUE(client.hung_up());
}

TEST_F(Server, EmptyPacketEndsTheConnection)
{
    start();
    const packet_client client = greeted();
    ASSERT_TRUE(client.send_bytes(""));
    pump();
    EXPECT_TRUE(client.hung_up());
    EXPECT_EQ(left_ids.size(), 1U);
}

TEST_F(Server, HalfClosedConnectionEndsAfterItsRequests)
{
    start();
    const packet_client client = greeted();
    ASSERT_TRUE(client.send(encode_ping(2, PING, {})));
    client.stop_sending();
    pump();
    EXPECT_EQ(client.receive()->header.request, 2U);
    EXPECT_TRUE(client.hung_up());
    EXPECT_EQ(left_ids.size(), 1U);
}

TEST_F(Server, ClientThatLeavesIsForgottenWithoutSpinning)
{
    start();
    packet_client client = greeted();
    client.close();
    pump();
    EXPECT_EQ(left_ids.size(), 1U);
    EXPECT_TRUE(server->clients.empty());
    EXPECT_EQ(run_round(*server, now_us), 0);
}

TEST_F(Server, BlockedClientThatLeavesIsForgotten)
{
    start();
    packet_client client = greeted();
    stop_reading(client);
    client.close();
    pump();
    EXPECT_TRUE(server->clients.empty());
    EXPECT_TRUE(server->home.blocked.empty());
}

TEST_F(Server, ClientWithoutHelloIsDroppedInTime)
{
    start();
    const packet_client silent = connect();
    const packet_client polite = greeted();
    now_us += 5'000'000;
    pump();
    EXPECT_FALSE(silent.hung_up());
    now_us += 200'000;
    pump();
    expect_error(silent.receive(), NOT_GREETED, 0, "no hello in time");
    EXPECT_TRUE(silent.hung_up());
    EXPECT_FALSE(polite.hung_up());
}

TEST_F(Server, RequestsOfAClientThatReadsNothingAreLeftWaiting)
{
    start();
    const packet_client client = greeted();
    stop_reading(client);
    ASSERT_TRUE(client.send(encode_ping(77, PING, {})));
    pump();
    EXPECT_EQ(run_round(*server, now_us), 0);
    uint64_t last = 0;
    while (const auto answer = client.receive()) {
        last = answer->header.request;
        pump();
    }
    EXPECT_EQ(last, 77U);
    EXPECT_TRUE(server->home.blocked.empty());
}

TEST_F(Server, ClientThatReadsNothingIsDroppedInTime)
{
    start();
    const packet_client client = greeted();
    stop_reading(client);
    now_us += 5'000'000;
    pump();
    EXPECT_EQ(left_ids.size(), 0U);
    now_us += 200'000;
    pump();
    EXPECT_EQ(left_ids.size(), 1U);
    while (client.receive().has_value()) {
    }
    EXPECT_TRUE(client.hung_up());
}

TEST_F(Server, ClientThatReadAgainTooLateIsToldWhy)
{
    start();
    const auto ends = std::make_shared<channel_ends>();
    comm_socket_v4_client* client =
        platform::adopt(*server, std::make_unique<memory_channel>(ends), now_us);
    client->greeted = true;
    ends->room = 0;
    platform::send_answer(*client, {encode_empty(1, DONE), {}}, now_us);
    ends->room = 1;
    now_us += 6'000'000;
    pump();
    ASSERT_EQ(ends->sent.size(), 1U);
    EXPECT_EQ(to_hex(ends->sent[0]),
              to_hex(encode(0, error{SLOW_CLIENT, "answers were not read in time"})));
    EXPECT_TRUE(ends->destroyed);
}

TEST_F(Server, ClientWithAFullQueueIsToldWhy)
{
    start();
    const auto ends = std::make_shared<channel_ends>();
    comm_socket_v4_client* client =
        platform::adopt(*server, std::make_unique<memory_channel>(ends), now_us);
    client->greeted = true;
    ends->room = 0;
    for (size_t i = 0; i < max_queued_answers; ++i) {
        platform::send_answer(*client, {encode_empty(1, DONE), {}}, now_us);
    }
    EXPECT_FALSE(client->leaving);
    ends->room = 1;
    platform::send_answer(*client, {encode_empty(1, DONE), {}}, now_us);
    EXPECT_TRUE(client->leaving);
    ASSERT_EQ(ends->sent.size(), 1U);
    EXPECT_EQ(to_hex(ends->sent[0]),
              to_hex(encode(0, error{SLOW_CLIENT, "answers were not read"})));
    pump();
}

TEST_F(Server, SlowReaderIsKept)
{
    start();
    const packet_client client = greeted();
    stop_reading(client);
    for (int i = 0; i < 5; ++i) {
        // The kernel reports room only when a good part of the buffer is free.
        while (client.receive().has_value()) {
        }
        pump();
        stop_reading(client);
        now_us += 4'000'000;
        pump();
    }
    EXPECT_EQ(left_ids.size(), 0U);
}

TEST_F(Server, OneStalledClientLeavesTheOthersServed)
{
    start();
    const packet_client stalled = greeted();
    stop_reading(stalled);
    std::vector<packet_client> live;
    for (int i = 0; i < 99; ++i) {
        live.push_back(greeted());
    }
    for (const packet_client& client : live) {
        ASSERT_TRUE(client.send(encode_ping(5, PING, {})));
    }
    EXPECT_EQ(run_round(*server, now_us), 99);
    for (const packet_client& client : live) {
        EXPECT_EQ(client.receive()->header.request, 5U);
    }
}

TEST_F(Server, ExceptionInARequestCostsTheClientOnly)
{
    start();
    const packet_client unlucky = greeted();
    const packet_client other = greeted();
    ASSERT_TRUE(unlucky.send(encode_empty(2, EXIT)));
    ASSERT_TRUE(other.send(encode_ping(3, PING, {})));
    pump();
    expect_error(unlucky.receive(), NO_MEMORY, 0, "out of memory");
    EXPECT_TRUE(unlucky.hung_up());
    EXPECT_EQ(other.receive()->header.request, 3U);
}

TEST_F(Server, RoundInsideARoundDoesNothing)
{
    start();
    server->inside_round = true;
    const packet_client client(path);
    EXPECT_EQ(run_round(*server, now_us), 0);
    EXPECT_TRUE(server->clients.empty());
    server->inside_round = false;
    pump();
    EXPECT_EQ(server->clients.size(), 1U);
}

TEST_F(Server, QuietRoundClosesTheGateForHalfAMillisecond)
{
    start();
    EXPECT_EQ(run_round(*server, now_us), 0);
    EXPECT_FALSE(platform::round_is_due(*server, now_us));
    EXPECT_FALSE(platform::round_is_due(*server, now_us + 499));
    EXPECT_TRUE(platform::round_is_due(*server, now_us + 500));
}

TEST_F(Server, BusyRoundLeavesTheGateOpen)
{
    start();
    const packet_client client(path);
    EXPECT_GT(run_round(*server, now_us), 0);
    EXPECT_TRUE(platform::round_is_due(*server, now_us));
}

TEST_F(Server, BusyRoundsWithoutAWaitArePausedForAsLongAsTheyTook)
{
    start();
    const packet_client client(path);
    run_round(*server, now_us);
    platform::note_round_time(*server, now_us, now_us + 999);
    EXPECT_TRUE(platform::round_is_due(*server, now_us));
    platform::note_round_time(*server, now_us + 999, now_us + 1300);
    EXPECT_FALSE(platform::round_is_due(*server, now_us + 1300 + 1299));
    EXPECT_TRUE(platform::round_is_due(*server, now_us + 1300 + 1300));
}

TEST_F(Server, WaitEndsThePause)
{
    start();
    platform::note_round_time(*server, now_us, now_us + 1'000'000);
    EXPECT_FALSE(platform::round_is_due(*server, now_us));
    comm_socket_v4_server_from_client_readable(server.get(), 0);
    EXPECT_TRUE(platform::round_is_due(*server, now_us));
}

TEST_F(Server, WaitThatReportsAClientOpensTheGate)
{
    start();
    const packet_client client = greeted();
    ASSERT_TRUE(client.send(encode_ping(2, PING, {})));
    comm_socket_v4_server_from_client_readable(server.get(), monotonic_clock_us() + 1'000'000);
    server->next_look_us = UINT64_MAX;
    EXPECT_TRUE(platform::round_is_due(*server, now_us));
    EXPECT_EQ(run_round(*server, now_us), 1);
    EXPECT_EQ(client.receive()->header.request, 2U);
}

TEST_F(Server, ClientBeyondTheLimitIsToldSo)
{
    start({.clients = 2});
    packet_client first = greeted();
    const packet_client second = greeted();
    const packet_client third = connect();
    expect_error(third.receive(), LIMIT, 0, "too many clients");
    EXPECT_TRUE(third.hung_up());
    EXPECT_TRUE(left_ids.empty());
    first.close();
    pump();
    greeted();
}

TEST_F(Server, ConnectionThatTheKernelCannotWatchIsTurnedAway)
{
    start();
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    const packet_client client{platform::unique_fd(ends[0])};
    server->home.epoll = client.fd(); // no epoll descriptor
    EXPECT_EQ(platform::adopt(*server, platform::make_socket_channel(platform::unique_fd(ends[1])),
                              now_us),
              nullptr);
    expect_error(client.receive(), NO_MEMORY, 0, "the kernel cannot watch this connection");
    EXPECT_TRUE(client.hung_up());
}

TEST_F(Server, OtherUsersAreTurnedAway)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs a second user";
    }
    start();
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    child_process stranger([this] {
        if (setresuid(unprivileged_user, unprivileged_user, unprivileged_user) != 0) {
            return 2;
        }
        const packet_client client(path);
        for (int i = 0; i < 5000 && client.connected(); ++i) {
            if (const auto answer = client.receive()) {
                const auto refused = answer->as<error>();
                return refused.code == NOT_ALLOWED && refused.text == "another user's process" ? 0
                                                                                               : 3;
            }
            usleep(1000);
        }
        return 4;
    });
    for (int i = 0; i < 5000 && run_round(*server, now_us) == 0; ++i) {
        usleep(1000);
    }
    EXPECT_EQ(stranger.wait(), 0);
    EXPECT_TRUE(server->clients.empty());
}

TEST_F(Server, SocketIsClosedToOtherUsersByItsMode)
{
    start();
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    EXPECT_EQ(
        run_without_privileges([this] { return packet_client(path).error() == EACCES ? 0 : 1; }),
        geteuid() == 0 ? 0 : 1);
}

TEST_F(Server, DescriptorsThatClientsSendAreClosedUnseen)
{
    start();
    const packet_client client = greeted();
    const size_t before = open_descriptors();
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(client.send_with_descriptors(encode_ping(2, PING, {}), STDERR_FILENO, 250));
        pump();
        ASSERT_EQ(client.receive()->header.request, 2U);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Server, ReplacedSocketKeepsItsConnectionsAndThoseOnTheirWay)
{
    start();
    const packet_client before = greeted();
    const packet_client on_its_way(path); // not accepted yet
    ASSERT_EQ(comm_socket_v4_reopen_server(server.get()), 0);
    ASSERT_TRUE(before.send(encode_ping(2, PING, {})));
    ASSERT_TRUE(on_its_way.send(encode(3, hello())));
    const packet_client after(path);
    ASSERT_TRUE(after.send(encode(4, hello())));
    pump();
    EXPECT_EQ(before.receive()->header.request, 2U);
    EXPECT_EQ(on_its_way.receive()->header.request, 3U);
    EXPECT_EQ(after.receive()->header.request, 4U);
}

TEST_F(Server, ReplacedSocketIsClosedAfterAWhile)
{
    start();
    now_us = monotonic_clock_us();
    ASSERT_EQ(comm_socket_v4_reopen_server(server.get()), 0);
    pump();
    EXPECT_TRUE(server->old_listener.socket);
    now_us += 3'000'000;
    pump();
    EXPECT_FALSE(server->old_listener.socket);
    EXPECT_TRUE(packet_client(path).connected());
}

TEST_F(Server, SocketMayBeReplacedAgainAndAgain)
{
    start();
    const size_t before = open_descriptors();
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(comm_socket_v4_reopen_server(server.get()), 0);
    }
    greeted();
    pump();
    EXPECT_EQ(open_descriptors(), before + 1);
}

TEST_F(Server, FailedReplacementLeavesTheOldSocketServing)
{
    start();
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(comm_socket_v4_reopen_server(server.get()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Comm socket '" + path + "': Is a directory\n");
    EXPECT_TRUE(server->listener.socket);
    EXPECT_FALSE(server->old_listener.socket);
    rmdir(path.c_str());
}

TEST_F(Server, ClientThatKeepsConnectingNeverMeetsAGap)
{
    start({.tend_gap_us = 1'000, .old_listener_us = 10'000});
    child_process newcomer([this] { return keep_connecting(path); });
    int replaced = 0;
    const uint64_t give_up_us = monotonic_clock_us() + 60'000'000;
    while (left_ids.size() < connections_in_a_row && monotonic_clock_us() < give_up_us) {
        now_us = monotonic_clock_us();
        run_round(*server, now_us);
        if (!server->old_listener.socket && !left_ids.empty()) {
            ASSERT_EQ(comm_socket_v4_reopen_server(server.get()), 0);
            ++replaced;
        }
        comm_socket_v4_server_from_client_readable(server.get(), now_us + 1'000);
    }
    EXPECT_EQ(newcomer.wait(), 0);
    EXPECT_GT(replaced, 1);
}

TEST_F(Server, NoServerIsNothingToReplace)
{
    EXPECT_EQ(comm_socket_v4_reopen_server(nullptr), 0);
}

TEST_F(Server, DaemonisedChildOwnsTheFile)
{
    start();
    const packet_client before = greeted();
    const int status = run_in_child([this, &before] {
        if (comm_socket_v4_reopen_server(server.get()) != 0) {
            return 2;
        }
        const packet_client after(path);
        if (!after.send(encode(4, hello())) || !before.send(encode_ping(5, PING, {}))) {
            return 3;
        }
        pump();
        if (!after.receive().has_value() || !before.receive().has_value()) {
            return 4;
        }
        platform::close_listener(&server->listener);
        return 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(folder.has("socket"));
}

TEST_F(Server, AdoptedChannelIsServedLikeASocket)
{
    start();
    const auto ends = std::make_shared<channel_ends>();
    comm_socket_v4_client* client =
        platform::adopt(*server, std::make_unique<memory_channel>(ends), now_us);
    ASSERT_NE(client, nullptr);
    const packet_bytes greeting = encode(9, hello());
    platform::take_packet(*server, *client, greeting.data(), greeting.size(), now_us);
    ASSERT_EQ(ends->sent.size(), 1U);
    platform::leave(*client);
    platform::leave(*client); // once is enough
    pump();
    EXPECT_TRUE(ends->finished);
    EXPECT_TRUE(ends->destroyed);
    EXPECT_EQ(left_ids.size(), 1U);
}

TEST_F(Server, ClientThatLeftIsSentNothingMore)
{
    start();
    const auto ends = std::make_shared<channel_ends>();
    comm_socket_v4_client* client =
        platform::adopt(*server, std::make_unique<memory_channel>(ends), now_us);
    platform::leave(*client);
    platform::send_answer(*client, {encode_empty(1, DONE), {}}, now_us);
    platform::send_event(*client, change_progress, {}, now_us);
    platform::send_status(*client, std::make_shared<const std::string>("x"), 1, true, now_us);
    platform::flush_answers(*client, now_us);
    EXPECT_TRUE(ends->sent.empty());
    pump();
}

TEST_F(Server, ProcessWithoutADescriptorGetsNoServer)
{
    EXPECT_EQ(
        run_in_child([] {
            testing::internal::CaptureStderr();
            rlimit limit = {};
            getrlimit(RLIMIT_NOFILE, &limit);
            const rlimit none = {0, 0};
            setrlimit(RLIMIT_NOFILE, &none);
            const bool refused = platform::make_server({answer_plainly, note_leaving}) == nullptr;
            char told[100] = {};
            const ssize_t size = pread(STDERR_FILENO, told, sizeof(told) - 1, 0);
            return refused && size > 0 &&
                           std::string(told) == "Comm server 'epoll': Too many open files\n"
                       ? 0
                       : 1;
        }),
        0);
}

TEST_F(Server, SoftDescriptorLimitIsRaisedAndBoundsTheClients)
{
    EXPECT_EQ(run_in_child([this] {
                  const rlimit limit = {64, 128};
                  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
                      return 2;
                  }
                  start();
                  rlimit now = {};
                  getrlimit(RLIMIT_NOFILE, &now);
                  const bool right = now.rlim_cur == 128 && server->limits.clients == 128 - 32;
                  platform::close_listener(&server->listener);
                  return right ? 0 : 1;
              }),
              0);
}
