#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/attack/attack.h"

namespace attack {

namespace {

sockaddr_un address_of(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t size = std::min(path.size(), sizeof address.sun_path - 1);
    std::copy_n(path.begin(), size, address.sun_path);
    return address;
}

using socket_call = int (*)(int, const sockaddr*, socklen_t);

int with_socket(int type, const std::string& path, socket_call call)
{
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return errno;
    }
    const sockaddr_un address = address_of(path);
    const int result =
        outcome(call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    close(fd);
    return result;
}

int connect_packets(const std::string& path)
{
    return with_socket(SOCK_SEQPACKET, path, connect);
}

int connect_stream(const std::string& path)
{
    return with_socket(SOCK_STREAM, path, connect);
}

int bind_socket(const std::string& path)
{
    return with_socket(SOCK_SEQPACKET, path, bind);
}

int send_datagram(const std::string& path)
{
    return with_socket(SOCK_DGRAM, path, [](int fd, const sockaddr* address, socklen_t size) {
        return static_cast<int>(sendto(fd, "x", 1, MSG_DONTWAIT, address, size));
    });
}

// Through one end of a pair, which needs no socket of its own.
int send_datagram_from_pair(const std::string& path)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return errno;
    }
    const sockaddr_un address = address_of(path);
    const int result = outcome(sendto(ends[0], "x", 1, MSG_DONTWAIT,
                                      reinterpret_cast<const sockaddr*>(&address), sizeof address));
    close(ends[0]);
    close(ends[1]);
    return result;
}

// From every socket that the worker has open; sendmsg() takes an address that a filter cannot see.
int send_datagram_from_open_socket(const std::string& path)
{
    constexpr int highest = 256;
    sockaddr_un address = address_of(path);
    char byte = 'x';
    iovec bytes = {&byte, 1};
    msghdr message = {};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    int result = ENOTSOCK;
    for (int fd = 0; fd < highest && result != 0; ++fd) {
        result = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == 1 ? 0 : ENOTSOCK;
    }
    return result;
}

int make_socket(int family, int type)
{
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return errno;
    }
    close(fd);
    return 0;
}

int make_tcp(const std::string& /*argument*/)
{
    return make_socket(AF_INET, SOCK_STREAM);
}

int make_udp(const std::string& /*argument*/)
{
    return make_socket(AF_INET6, SOCK_DGRAM);
}

int make_netlink(const std::string& /*argument*/)
{
    return make_socket(AF_NETLINK, SOCK_RAW);
}

int make_local(const std::string& /*argument*/)
{
    return make_socket(AF_UNIX, SOCK_SEQPACKET);
}

constexpr attempt attempts[] = {
    {"connect", connect_packets},
    {"connect_stream", connect_stream},
    {"bind", bind_socket},
    {"datagram", send_datagram},
    {"datagram_from_open_socket", send_datagram_from_open_socket},
    {"datagram_from_pair", send_datagram_from_pair},
    {"tcp_socket", make_tcp},
    {"udp_socket", make_udp},
    {"netlink_socket", make_netlink},
    {"local_socket", make_local},
};

} // namespace

std::span<const attempt> socket_attempts()
{
    return attempts;
}

} // namespace attack
