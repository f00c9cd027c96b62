// Packets on the socket. Every wait is a poll with what is left of the caller's time limit.
#include "client/connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/socket.h>

#include "wire/socket_address.h"

namespace {

constexpr long retry_ns = 20'000'000;  // between tries to reach it
constexpr int most_late_packets = 256; // that one call takes in after its time limit

std::string with_errno(const std::string& what, int error)
{
    return what + ": " + strerror(error);
}

// --- connecting ---------------------------------------------------------------------------------

// A worker binds its socket a moment after its start, and anew when it becomes a daemon.
bool may_be_starting(int error)
{
    return error == ENOENT || error == ECONNREFUSED;
}

// 0, or the reason as an errno.
int connect_once(stillimage_client& client, const sockaddr_un& address)
{
    client.socket = owned_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
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

stillimage_result connect_failure(stillimage_client& client, const char* path, int error)
{
    const std::string where = std::string("no worker serves at ") + path;
    switch (error) {
    case EACCES:
    case EPERM:
        return fail(client, STILLIMAGE_ERROR_REFUSED,
                    with_errno(std::string("may not connect to ") + path, error));
    case EAGAIN:
        return fail(client, STILLIMAGE_ERROR_TIMEOUT,
                    std::string("the worker at ") + path + " did not take the connection in time");
    case ENOENT:
        return fail(client, STILLIMAGE_ERROR_NO_WORKER, where + ": there is no such socket");
    case ECONNREFUSED:
    case ENOTSOCK:
    case ENOTDIR:
    case EPROTOTYPE:
    case ELOOP:
        return fail(client, STILLIMAGE_ERROR_NO_WORKER, with_errno(where, error));
    default:
        return fail(client, STILLIMAGE_ERROR_SYSTEM,
                    with_errno(std::string("cannot connect to ") + path, error));
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
        const bool waiting = error == EAGAIN || (may_be_starting(error) && !start.passed());
        if (!waiting || until.passed()) {
            return connect_failure(client, path.c_str(), error);
        }
        const long left_ms = until.left_ms() < 0 ? retry_ns : until.left_ms() * 1'000'000L;
        const timespec pause = {0, std::min(retry_ns, left_ms)};
        nanosleep(&pause, nullptr);
    }
}

// Pictures are taken from a worker of our own user, or of the system's.
stillimage_result check_owner(stillimage_client& client, const char* path)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (getsockopt(client.socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        const int error = errno;
        client.socket.reset();
        return fail(client, STILLIMAGE_ERROR_SYSTEM, with_errno("cannot ask who serves", error));
    }
    if (peer.uid != geteuid() && peer.uid != 0 && geteuid() != 0) {
        client.socket.reset();
        return fail(client, STILLIMAGE_ERROR_REFUSED,
                    std::string("the worker at ") + path + " belongs to another user");
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

// --- waiting ------------------------------------------------------------------------------------

stillimage_result gone(stillimage_client& client)
{
    client.socket.reset();
    return fail(client, STILLIMAGE_ERROR_NO_WORKER, "the worker has gone");
}

stillimage_result await_socket(stillimage_client& client, short events, const deadline& until)
{
    while (true) {
        pollfd waiting = {client.socket.get(), events, 0};
        const int ready = poll(&waiting, 1, until.left_ms());
        if (ready > 0) {
            return STILLIMAGE_OK;
        }
        if (ready == 0) {
            return fail(client, STILLIMAGE_ERROR_TIMEOUT, "the worker did not answer in time");
        }
        if (errno != EINTR) {
            return fail(client, STILLIMAGE_ERROR_SYSTEM, with_errno("cannot wait", errno));
        }
    }
}

// --- receiving ----------------------------------------------------------------------------------

// Takes over every descriptor of the message; all but the first are closed.
owned_fd take_descriptor(msghdr& message)
{
    owned_fd first;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(part) + i * sizeof fd, sizeof fd);
            owned_fd owned(fd);
            if (!first) {
                first = std::move(owned);
            }
        }
    }
    return first;
}

ssize_t receive_message(stillimage_client& client, bool* truncated, owned_fd* descriptor)
{
    alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))];
    client.buffer.resize(comm_protocol::max_packet_size);
    iovec piece = {client.buffer.data(), client.buffer.size()};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = recvmsg(client.socket.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got >= 0) {
        *descriptor = take_descriptor(message);
        *truncated = (message.msg_flags & MSG_TRUNC) != 0;
    }
    return got;
}

stillimage_result broken_protocol(stillimage_client& client, const char* what)
{
    client.socket.reset();
    return fail(client, STILLIMAGE_ERROR_PROTOCOL, what);
}

stillimage_result judge_packet(stillimage_client& client, size_t size, received_packet* packet)
{
    if (!comm_protocol::decode_header(client.buffer.data(), size, &packet->header)) {
        return broken_protocol(client, "the worker sent a malformed packet");
    }
    if (packet->header.major != comm_protocol::version_major) {
        client.socket.reset();
        return fail(client, STILLIMAGE_ERROR_REFUSED,
                    "the worker speaks version " + std::to_string(packet->header.major) +
                        " of the protocol, this library version " +
                        std::to_string(comm_protocol::version_major));
    }
    packet->body = client.buffer.data() + comm_protocol::packet_header_size;
    packet->size = size - comm_protocol::packet_header_size;
    return STILLIMAGE_OK;
}

} // namespace

stillimage_result fail(stillimage_client& client, stillimage_result result, std::string reason)
{
    client.last_error = std::move(reason);
    return result;
}

stillimage_result open_connection(stillimage_client& client, const std::string& path,
                                  const deadline& start, const deadline& until)
{
    client.socket_path = path;
    client.greeting = false;
    if (!wire::is_socket_path(path)) {
        return fail(client, STILLIMAGE_ERROR_ARGUMENT,
                    "not a socket path of 1 to 107 bytes: " + path);
    }
    stillimage_result result = connect_until(client, path, start, until);
    if (result == STILLIMAGE_OK) {
        result = check_owner(client, path.c_str());
    }
    client.greeting = result == STILLIMAGE_OK;
    return client.greeting ? greet(client, until) : result;
}

stillimage_result send_packet(stillimage_client& client, const comm_protocol::packet_bytes& packet,
                              const deadline& until)
{
    while (client.socket) {
        if (send(client.socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >=
            0) {
            return STILLIMAGE_OK;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            const stillimage_result result = await_socket(client, POLLOUT, until);
            if (result != STILLIMAGE_OK) {
                return result;
            }
        } else if (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN) {
            // The worker may have said why before it hung up: the answer is read after this.
            return STILLIMAGE_OK;
        } else if (errno != EINTR) {
            return fail(client, STILLIMAGE_ERROR_SYSTEM, with_errno("cannot send", errno));
        }
    }
    return gone(client);
}

stillimage_result receive_packet(stillimage_client& client, const deadline& until,
                                 received_packet* packet)
{
    bool reset_seen = false;
    while (client.socket) {
        if (until.passed() && ++client.late_packets > most_late_packets) {
            return fail(client, STILLIMAGE_ERROR_TIMEOUT, "the worker did not answer in time");
        }
        bool truncated = false;
        const ssize_t got = receive_message(client, &truncated, &packet->descriptor);
        if (got > 0 && !truncated) {
            return judge_packet(client, static_cast<size_t>(got), packet);
        }
        if (got > 0) {
            return broken_protocol(client, "the worker sent a packet that is too large");
        }
        if (got < 0 && errno == ECONNRESET && !reset_seen) {
            reset_seen = true; // what was sent before the reset can still be read
            continue;
        }
        if (got == 0 || errno == ECONNRESET || errno == EPIPE) {
            break;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            const stillimage_result result = await_socket(client, POLLIN, until);
            if (result != STILLIMAGE_OK) {
                return result;
            }
        } else if (errno != EINTR) {
            return fail(client, STILLIMAGE_ERROR_SYSTEM, with_errno("cannot receive", errno));
        }
    }
    return gone(client);
}
