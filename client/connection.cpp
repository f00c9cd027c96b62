// Packets on the socket. Every wait is a poll for the rest of the caller's time limit.
#include "client/connection.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

#include "wire/utf8.h"

namespace {

constexpr int max_late_packets = 256; // that one call reads after its time limit

stillimage_result worker_ended(stillimage_client& client)
{
    client.socket.reset();
    return fail(client, STILLIMAGE_ERROR_NO_WORKER, "the worker has gone");
}

stillimage_result wait_for_socket(stillimage_client& client, short events, const deadline& until)
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
            return fail_with_errno(client, STILLIMAGE_ERROR_SYSTEM, "cannot wait", errno);
        }
    }
}

// Returns the first descriptor of the message and closes all others.
unique_fd take_descriptor(msghdr& message)
{
    unique_fd first;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(part) + i * sizeof fd, sizeof fd);
            unique_fd owned(fd);
            if (!first) {
                first = std::move(owned);
            }
        }
    }
    return first;
}

ssize_t receive_message(stillimage_client& client, bool* truncated, unique_fd* descriptor)
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

stillimage_result protocol_error(stillimage_client& client, const char* what)
{
    client.socket.reset();
    return fail(client, STILLIMAGE_ERROR_PROTOCOL, what);
}

stillimage_result check_packet(stillimage_client& client, size_t size, received_packet* packet)
{
    if (!comm_protocol::decode_header(client.buffer.data(), size, &packet->header)) {
        return protocol_error(client, "the worker sent a malformed packet");
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

stillimage_result fail(stillimage_client& client, stillimage_result result, std::string_view reason)
{
    client.last_error = wire::escape_controls(reason);
    return result;
}

stillimage_result fail_with_errno(stillimage_client& client, stillimage_result result,
                                  const std::string& what, int error)
{
    return fail(client, result, what + ": " + strerror(error));
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
            const stillimage_result result = wait_for_socket(client, POLLOUT, until);
            if (result != STILLIMAGE_OK) {
                return result;
            }
        } else if (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN) {
            // The worker may have sent the reason before it hung up; the caller reads it next.
            return STILLIMAGE_OK;
        } else if (errno != EINTR) {
            return fail_with_errno(client, STILLIMAGE_ERROR_SYSTEM, "cannot send", errno);
        }
    }
    return worker_ended(client);
}

stillimage_result receive_packet(stillimage_client& client, const deadline& until,
                                 received_packet* packet)
{
    bool reset_seen = false;
    while (client.socket) {
        if (until.passed() && ++client.late_packets > max_late_packets) {
            return fail(client, STILLIMAGE_ERROR_TIMEOUT, "the worker did not answer in time");
        }
        bool truncated = false;
        const ssize_t got = receive_message(client, &truncated, &packet->descriptor);
        if (got > 0 && !truncated) {
            return check_packet(client, static_cast<size_t>(got), packet);
        }
        if (got > 0) {
            return protocol_error(client, "the worker sent a packet that is too large");
        }
        if (got < 0 && errno == ECONNRESET && !reset_seen) {
            reset_seen = true; // packets from before the reset can still be read
            continue;
        }
        if (got == 0 || errno == ECONNRESET || errno == EPIPE) {
            break;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            const stillimage_result result = wait_for_socket(client, POLLIN, until);
            if (result != STILLIMAGE_OK) {
                return result;
            }
        } else if (errno != EINTR) {
            return fail_with_errno(client, STILLIMAGE_ERROR_SYSTEM, "cannot receive", errno);
        }
    }
    return worker_ended(client);
}
