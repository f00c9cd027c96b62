#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/standalone/comm/acceptor.h"
#include "platform/standalone/comm/socket_channel.h"
#include "platform/time.h"
#include "tests/support/child_process.h"
#include "tests/support/comm_fixture.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/refused_calls.h"
#include "tests/unit/comm/server_fixture.h"

using namespace comm_protocol;
using platform::run_round;

namespace {

constexpr size_t connections_in_a_row = 3000;

// 0 when every connection succeeded at the first attempt and was answered.
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

class Acceptor : public server_fixture {};

} // namespace

TEST_F(Acceptor, ClientBeyondTheLimitIsRefusedWithAReason)
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

TEST_F(Acceptor, ConnectionThatCannotBeWatchedIsRefused)
{
    start();
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    const packet_client client{unique_fd(ends[0])};
    server->home.epoll = client.fd(); // not an epoll descriptor
    EXPECT_EQ(platform::adopt(*server, platform::make_socket_channel(unique_fd(ends[1])), now_us),
              nullptr);
    expect_error(client.receive(), NO_MEMORY, 0, "the kernel cannot watch this connection");
    EXPECT_TRUE(client.hung_up());
}

TEST_F(Acceptor, OtherUsersAreRefused)
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

TEST_F(Acceptor, UnknownUserIsNotReportedAsAnotherUser)
{
    const int status = run_in_child([this] {
        start();
        const packet_client client(path);
        if (!refuse_calls({"getsockopt"})) {
            return 2;
        }
        pump();
        const auto answer = client.receive();
        platform::close_listener(&server->listener);
        return answer.has_value() && answer->as<error>().code == NOT_ALLOWED &&
                       answer->as<error>().text ==
                           "the kernel does not tell whose process this is" &&
                       server->clients.empty()
                   ? 0
                   : 1;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Acceptor, SocketModeExcludesOtherUsers)
{
    start();
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    EXPECT_EQ(
        run_without_privileges([this] { return packet_client(path).error() == EACCES ? 0 : 1; }),
        geteuid() == 0 ? 0 : 1);
}

TEST_F(Acceptor, TakenOverSocketKeepsEstablishedAndWaitingConnections)
{
    start();
    const packet_client before = greeted();
    const packet_client waiting(path); // not accepted yet
    ASSERT_EQ(comm_socket_v4_reopen_server(server.get()), 0);
    ASSERT_TRUE(before.send(encode_ping(2, PING, {})));
    ASSERT_TRUE(waiting.send(encode(3, hello())));
    const packet_client after(path);
    ASSERT_TRUE(after.send(encode(4, hello())));
    pump();
    EXPECT_EQ(before.receive()->header.request, 2U);
    EXPECT_EQ(waiting.receive()->header.request, 3U);
    EXPECT_EQ(after.receive()->header.request, 4U);
}

TEST_F(Acceptor, TakingOverNeedsNoFurtherDescriptor)
{
    start();
    const size_t before = open_descriptors();
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(comm_socket_v4_reopen_server(server.get()), 0);
    }
    greeted();
    pump();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Acceptor, SocketThatCannotBeTakenOverIsReported)
{
    start();
    unique_fd kept = std::move(server->listener.socket);
    server->listener.socket.reset(eventfd(0, EFD_CLOEXEC));
    testing::internal::CaptureStderr();
    EXPECT_EQ(comm_socket_v4_reopen_server(server.get()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Comm socket '" + path + "': Socket operation on non-socket\n");
    server->listener.socket = std::move(kept);
}

TEST_F(Acceptor, ClientThatConnectsRepeatedlyIsNeverRefused)
{
    start({.tend_gap_us = 1'000});
    child_process newcomer([this] { return keep_connecting(path); });
    const uint64_t give_up_us = monotonic_clock_us() + 60'000'000;
    while (left_ids.size() < connections_in_a_row && monotonic_clock_us() < give_up_us) {
        now_us = monotonic_clock_us();
        run_round(*server, now_us);
        ASSERT_EQ(comm_socket_v4_reopen_server(server.get()), 0);
        comm_socket_v4_server_from_client_readable(server.get(), now_us + 1'000);
    }
    EXPECT_EQ(newcomer.wait(), 0);
}

TEST_F(Acceptor, ReplacingWithoutAServerFails)
{
    EXPECT_EQ(comm_socket_v4_reopen_server(nullptr), 0);
}

TEST_F(Acceptor, DaemonisedChildOwnsTheFile)
{
    start();
    const packet_client before = greeted();
    const int status = run_in_child([this, &before] {
        if (comm_socket_v4_reopen_server(server.get()) != 0) {
            return 2;
        }
        const packet_client after(path);
        ucred peer = {};
        socklen_t size = sizeof peer;
        if (getsockopt(after.fd(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
            peer.pid != getpid()) {
            return 5;
        }
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

TEST_F(Acceptor, SoftDescriptorLimitIsRaisedAndBoundsTheClients)
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
