#include "tests/support/packet_client.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

using namespace comm_protocol;

packet_client::packet_client(const std::string& path)
    : socket_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (connect(socket_.get(), generic, sizeof(address)) != 0) {
        error_ = errno;
        socket_.reset();
    }
}

bool packet_client::send(const packet_bytes& packet) const
{
    return ::send(socket_.get(), packet.data(), packet.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(packet.size());
}

bool packet_client::send_bytes(std::string_view bytes) const
{
    return ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

bool packet_client::send_with_descriptors(const packet_bytes& packet, int fd, size_t count) const
{
    iovec data = {const_cast<unsigned char*>(packet.data()), packet.size()};
    const std::vector<int> descriptors(count, fd);
    std::vector<unsigned char> control(CMSG_SPACE(count * sizeof(int)));
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(count * sizeof(int));
    memcpy(CMSG_DATA(head), descriptors.data(), count * sizeof(int));
    return sendmsg(socket_.get(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

std::optional<received_packet> packet_client::receive() const
{
    static std::array<unsigned char, max_packet_size + 1> buffer;
    iovec data = {buffer.data(), buffer.size()};
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t size = recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (size <= 0) {
        return std::nullopt;
    }
    received_packet packet;
    packet.bytes.assign(buffer.data(), buffer.data() + size);
    if (const cmsghdr* head = CMSG_FIRSTHDR(&message); head != nullptr) {
        int descriptor = -1;
        memcpy(&descriptor, CMSG_DATA(head), sizeof(descriptor));
        packet.descriptor.reset(descriptor);
    }
    if (!decode_header(packet.bytes.data(), packet.bytes.size(), &packet.header)) {
        return std::nullopt;
    }
    return packet;
}

bool packet_client::hung_up() const
{
    unsigned char byte = 0;
    const ssize_t size = recv(socket_.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return size == 0 || (size < 0 && errno != EAGAIN);
}

void packet_client::stop_sending() const
{
    shutdown(socket_.get(), SHUT_WR);
}

std::string to_hex(const packet_bytes& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const unsigned char byte : bytes) {
        if (!text.empty()) {
            text += ' ';
        }
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return text;
}
