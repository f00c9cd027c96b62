#include "client/connect.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>
#include <sys/socket.h>
#include <unistd.h>

#include "client/boundary.h"
#include "client/connection.h"
#include "client/requests.h"
#include "wire/socket_address.h"

namespace {

constexpr long retry_ns = 20'000'000; // between attempts to connect

// A worker binds its socket shortly after its start, and binds it again when it becomes a daemon.
bool may_be_starting(int error)
{
    return error == ENOENT || error == ECONNREFUSED;
}

// Returns 0 or an errno.
int connect_once(stillimage_client& client, const sockaddr_un& address)
{
    client.socket = unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!client.socket) {
        return errno;
    }
    if (connect(client.socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
        0) {
        return 0;
    }
    const int error = errno;
    client.socket.reset();
    return error;
}

stillimage_result fail_to_connect(stillimage_client& client, const std::string& path, int error)
{
    const std::string where = "no worker serves at " + path;
    switch (error) {
    case EACCES:
    case EPERM:
        return fail_with_errno(client, STILLIMAGE_ERROR_REFUSED, "may not connect to " + path,
                               error);
    case EAGAIN:
        return fail(client, STILLIMAGE_ERROR_TIMEOUT,
                    "the worker at " + path + " did not take the connection in time");
    case ENOENT:
        return fail(client, STILLIMAGE_ERROR_NO_WORKER, where + ": there is no such socket");
    case ECONNREFUSED:
    case ENOTSOCK:
    case ENOTDIR:
    case EPROTOTYPE:
    case ELOOP:
        return fail_with_errno(client, STILLIMAGE_ERROR_NO_WORKER, where, error);
    default:
        return fail_with_errno(client, STILLIMAGE_ERROR_SYSTEM, "cannot connect to " + path, error);
    }
}

stillimage_result connect_until(stillimage_client& client, const std::string& path,
                                const deadline& start, const deadline& until)
{
    const sockaddr_un address = wire::socket_address(path);
    while (true) {
        const int error = connect_once(client, address);
        if (error == 0) {
            return STILLIMAGE_OK;
        }
        const bool can_retry = error == EAGAIN || (may_be_starting(error) && !start.passed());
        if (!can_retry || until.passed()) {
            return fail_to_connect(client, path, error);
        }
        const long left_ns = until.left_ms() < 0 ? retry_ns : until.left_ms() * 1'000'000L;
        const timespec pause = {0, std::min(retry_ns, left_ns)};
        nanosleep(&pause, nullptr);
    }
}

// The worker has to run as our own user or as root; root accepts any worker.
stillimage_result check_user(stillimage_client& client, const std::string& path)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (getsockopt(client.socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        const int error = errno;
        client.socket.reset();
        return fail_with_errno(client, STILLIMAGE_ERROR_SYSTEM, "cannot ask who serves", error);
    }
    if (peer.uid != geteuid() && peer.uid != 0 && geteuid() != 0) {
        client.socket.reset();
        return fail(client, STILLIMAGE_ERROR_REFUSED,
                    "the worker at " + path + " belongs to another user");
    }
    return STILLIMAGE_OK;
}

stillimage_result greet(stillimage_client& client, const deadline& until)
{
    received_packet answer;
    const auto request = comm_protocol::encode(++client.last_request, comm_protocol::hello{});
    const stillimage_result result =
        ask(client, request, comm_protocol::HELLO_ANSWER, until, &answer);
    comm_protocol::hello_answer greeting;
    if (result != STILLIMAGE_OK) {
        return result;
    }
    if (!comm_protocol::decode(answer.body, answer.size, &greeting)) {
        return fail(client, STILLIMAGE_ERROR_PROTOCOL, "the worker's greeting is malformed");
    }
    client.worker_pid = static_cast<int32_t>(greeting.worker_pid);
    return STILLIMAGE_OK;
}

} // namespace

stillimage_result open_connection(stillimage_client& client, const std::string& path,
                                  const deadline& start, const deadline& until)
{
    client.socket_path = path;
    if (!wire::is_socket_path(path)) {
        return fail(client, STILLIMAGE_ERROR_ARGUMENT,
                    "not a socket path of 1 to 107 bytes: " + path);
    }
    stillimage_result result = connect_until(client, path, start, until);
    if (result == STILLIMAGE_OK) {
        result = check_user(client, path);
    }
    return result == STILLIMAGE_OK ? greet(client, until) : result;
}

stillimage_result connect_within(const char* socket_path, const deadline& start,
                                 const deadline& until, stillimage_client** client)
{
    if (socket_path == nullptr || client == nullptr) {
        return STILLIMAGE_ERROR_ARGUMENT;
    }
    *client = new (std::nothrow) stillimage_client;
    if (*client == nullptr) {
        return STILLIMAGE_ERROR_SYSTEM;
    }
    return at_boundary(*client, [&](stillimage_client& c) {
        return open_connection(c, socket_path, start, until);
    });
}

stillimage_result stillimage_connect(const char* socket_path, int timeout_ms,
                                     stillimage_client** client)
{
    return connect_within(socket_path, deadline(default_start_ms), deadline(timeout_ms), client);
}
