#include <cerrno>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/standalone/comm/acceptor.h"
#include "platform/standalone/comm/server.h"
#include "platform/standalone/comm/socket_channel.h"
#include "platform/time.h"
#include "tests/support/child_process.h"
#include "tests/support/comm_fixture.h"
#include "tests/support/memory_channel.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/refused_calls.h"
#include "tests/unit/comm/server_fixture.h"

using namespace comm_protocol;
using platform::run_round;

namespace {

class Server : public server_fixture {
protected:
    // A client with an in-memory channel, whose other end is `ends`.
    comm_socket_v4_client* adopt_client()
    {
        return platform::adopt(*server, std::make_unique<memory_channel>(ends), now_us);
    }

    void answer(comm_socket_v4_client& client) const
    {
        platform::send_answer(client, {encode_empty(1, DONE), {}}, now_us);
    }

    void expect_only_sent(const error& what) const
    {
        ASSERT_EQ(ends->sent.size(), 1U);
        EXPECT_EQ(to_hex(ends->sent[0]), to_hex(encode(0, what)));
    }

    const std::shared_ptr<channel_ends> ends = std::make_shared<channel_ends>();
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

TEST_F(Server, LargestPacketIsAccepted)
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

TEST_F(Server, RefusalArrivesAlthoughRequestsWereStillUnread)
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

TEST_F(Server, ClientThatLeavesIsRemovedWithoutSpinning)
{
    start();
    packet_client client = greeted();
    client.close();
    pump();
    EXPECT_EQ(left_ids.size(), 1U);
    EXPECT_TRUE(server->clients.empty());
    EXPECT_EQ(run_round(*server, now_us), 0);
}

TEST_F(Server, BlockedClientThatLeavesIsRemoved)
{
    start();
    packet_client client = greeted();
    stop_reading(client);
    client.close();
    pump();
    EXPECT_TRUE(server->clients.empty());
    EXPECT_TRUE(server->home.blocked.empty());
}

TEST_F(Server, ClientWithoutHelloIsDroppedAfterATimeout)
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

TEST_F(Server, RequestsOfAClientThatDoesNotReadAreNotRead)
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

TEST_F(Server, ClientThatDoesNotReadIsDroppedAfterATimeout)
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

TEST_F(Server, ClientThatReadsAgainTooLateGetsTheReason)
{
    start();
    comm_socket_v4_client* client = adopt_client();
    client->greeted = true;
    ends->room = 0;
    answer(*client);
    ends->room = 1;
    now_us += 6'000'000;
    pump();
    expect_only_sent(error{SLOW_CLIENT, "answers were not read in time"});
    EXPECT_TRUE(ends->destroyed);
}

TEST_F(Server, ClientWithAFullQueueGetsTheReason)
{
    start();
    comm_socket_v4_client* client = adopt_client();
    client->greeted = true;
    ends->room = 0;
    for (size_t i = 0; i < max_queued_answers; ++i) {
        answer(*client);
    }
    EXPECT_FALSE(client->leaving);
    ends->room = 1;
    answer(*client);
    EXPECT_TRUE(client->leaving);
    expect_only_sent(error{SLOW_CLIENT, "answers were not read"});
    pump();
}

TEST_F(Server, SlowReaderIsKept)
{
    start();
    const packet_client client = greeted();
    stop_reading(client);
    for (int i = 0; i < 5; ++i) {
        // The kernel reports free space only when a good part of the buffer is free.
        while (client.receive().has_value()) {
        }
        pump();
        stop_reading(client);
        now_us += 4'000'000;
        pump();
    }
    EXPECT_EQ(left_ids.size(), 0U);
}

TEST_F(Server, StalledClientDoesNotAffectTheOthers)
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

TEST_F(Server, ExceptionInARequestOnlyDropsTheClient)
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

TEST_F(Server, NestedRoundDoesNothing)
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

TEST_F(Server, QuietRoundDelaysTheNextByHalfAMillisecond)
{
    start();
    EXPECT_EQ(run_round(*server, now_us), 0);
    EXPECT_FALSE(platform::round_is_due(*server, now_us));
    EXPECT_FALSE(platform::round_is_due(*server, now_us + 499));
    EXPECT_TRUE(platform::round_is_due(*server, now_us + 500));
}

TEST_F(Server, BusyRoundAllowsTheNextAtOnce)
{
    start();
    const packet_client client(path);
    EXPECT_GT(run_round(*server, now_us), 0);
    EXPECT_TRUE(platform::round_is_due(*server, now_us));
}

TEST_F(Server, BusyRoundsWithoutAWaitPauseForAsLongAsTheyTook)
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

TEST_F(Server, WaitThatReportsAClientAllowsARound)
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

TEST_F(Server, AdoptedChannelIsServedLikeASocket)
{
    start();
    comm_socket_v4_client* client = adopt_client();
    ASSERT_NE(client, nullptr);
    const packet_bytes greeting = encode(9, hello());
    platform::take_packet(*server, *client, greeting.data(), greeting.size(), now_us);
    ASSERT_EQ(ends->sent.size(), 1U);
    platform::leave(*client);
    platform::leave(*client); // has no effect the second time
    pump();
    EXPECT_TRUE(ends->finished);
    EXPECT_TRUE(ends->destroyed);
    EXPECT_EQ(left_ids.size(), 1U);
}

TEST_F(Server, LackOfMemoryForAnAnswerIsNotReportedAsUnread)
{
    start();
    comm_socket_v4_client* client = adopt_client();
    ends->no_memory = 1;
    answer(*client);
    expect_only_sent(error{NO_MEMORY, "the kernel has no memory for an answer"});
    pump();
    EXPECT_EQ(left_ids.size(), 1U);
}

TEST_F(Server, LackOfMemoryForAQueuedAnswerIsNotReportedAsUnread)
{
    start();
    comm_socket_v4_client* client = adopt_client();
    ends->room = 0;
    answer(*client);
    ends->room = 10;
    ends->no_memory = 1;
    platform::flush_answers(*client, now_us);
    expect_only_sent(error{NO_MEMORY, "the kernel has no memory for an answer"});
    pump();
}

TEST_F(Server, BrokenChannelIsDroppedSilently)
{
    start();
    comm_socket_v4_client* client = adopt_client();
    ends->gone = true;
    answer(*client);
    ends->gone = false;
    EXPECT_TRUE(ends->sent.empty());
    pump();
    EXPECT_EQ(left_ids.size(), 1U);
}

TEST_F(Server, LackOfKernelMemoryDiffersFromAClosedConnection)
{
    for (const int reason : {ENOBUFS, ENOMEM, ETOOMANYREFS}) {
        EXPECT_EQ(run_in_child([reason] {
                      int pair[2] = {-1, -1};
                      socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair);
                      const unique_fd other(pair[0]);
                      const auto channel = platform::make_socket_channel(unique_fd(pair[1]));
                      comm_socket_v4_packet with_descriptor = {encode_empty(1, DONE), {}};
                      with_descriptor.descriptor.reset(dup(STDERR_FILENO));
                      if (!refuse_calls({"send", "sendto", "sendmsg"}, reason)) {
                          return 2;
                      }
                      using platform::channel_result;
                      return channel->send({encode_empty(1, DONE), {}}) ==
                                         channel_result::NO_MEMORY &&
                                     channel->send(with_descriptor) == channel_result::NO_MEMORY
                                 ? 0
                                 : 1;
                  }),
                  0)
            << reason;
    }
}

TEST_F(Server, ClientThatLeftGetsNothingMore)
{
    start();
    comm_socket_v4_client* client = adopt_client();
    platform::leave(*client);
    answer(*client);
    platform::send_event(*client, change_progress, {}, now_us);
    platform::send_status(*client, std::make_shared<const std::string>("x"), 1, true, now_us);
    platform::flush_answers(*client, now_us);
    EXPECT_TRUE(ends->sent.empty());
    pump();
}

TEST_F(Server, WithoutADescriptorThereIsNoServer)
{
    EXPECT_EQ(run_in_child([] {
                  testing::internal::CaptureStderr();
                  rlimit limit = {};
                  getrlimit(RLIMIT_NOFILE, &limit);
                  const rlimit none = {0, 0};
                  setrlimit(RLIMIT_NOFILE, &none);
                  const bool refused = platform::make_server(callbacks) == nullptr;
                  char text[100] = {};
                  const ssize_t size = pread(STDERR_FILENO, text, sizeof(text) - 1, 0);
                  return refused && size > 0 &&
                                 std::string(text) == "Comm server 'epoll': Too many open files\n"
                             ? 0
                             : 1;
              }),
              0);
}

TEST_F(Server, DescriptorsSentByClientsAreClosed)
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
