#include "platform/standalone/comm/socket_channel.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <utility>

namespace platform {

namespace {

constexpr int max_unread_packets = 1024; // that finish() discards

channel_result from_errno()
{
    switch (errno) {
    case EAGAIN:
        return channel_result::AGAIN;
    case ENOBUFS:
    case ENOMEM:
    case ETOOMANYREFS: // descriptors in transit
        return channel_result::NO_MEMORY;
    default:
        return channel_result::GONE;
    }
}

ssize_t send_with_descriptor(int socket, const comm_socket_v4_packet& packet)
{
    iovec data = {const_cast<unsigned char*>(packet.bytes.data()), packet.bytes.size()};
    const int descriptor = packet.descriptor.get();
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(head), &descriptor, sizeof(int));
    return sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

class socket_channel final : public packet_channel {
public:
    explicit socket_channel(unique_fd socket) : socket_(std::move(socket)) {}

    channel_result receive(unsigned char* buffer, size_t capacity, size_t* size) override
    {
        // Without a buffer for control data the kernel itself closes unwanted descriptors.
        ssize_t got = 0;
        do {
            got = recv(socket_.get(), buffer, capacity, MSG_DONTWAIT | MSG_TRUNC);
        } while (got < 0 && errno == EINTR);
        if (got < 0) {
            return from_errno();
        }
        *size = static_cast<size_t>(got);
        // An empty packet cannot be distinguished from the end of the connection; both end it.
        return got == 0 ? channel_result::GONE : channel_result::DONE;
    }

    channel_result send(const comm_socket_v4_packet& packet) override
    {
        ssize_t sent = 0;
        do {
            sent = packet.descriptor ? send_with_descriptor(socket_.get(), packet)
                                     : ::send(socket_.get(), packet.bytes.data(),
                                              packet.bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
        return sent < 0 ? from_errno() : channel_result::DONE;
    }

    void finish() override
    {
        // If requests are unread when the socket closes, the last answers are lost to a reset.
        shutdown(socket_.get(), SHUT_RDWR);
        unsigned char byte = 0;
        int left = max_unread_packets;
        while (left-- > 0 && recv(socket_.get(), &byte, 1, MSG_DONTWAIT) > 0) {
        }
    }

    int descriptor() const override { return socket_.get(); }

private:
    unique_fd socket_;
};

} // namespace

std::unique_ptr<packet_channel> make_socket_channel(unique_fd socket)
{
    return std::make_unique<socket_channel>(std::move(socket));
}

} // namespace platform
