#include "bench/packet_echo.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

int listen_at(const std::string& path)
{
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        perror("echo");
        exit(EXIT_FAILURE);
    }
    return listener;
}

void watch(int epoll, int fd)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

} // namespace

void run_packet_echo(const std::string& path, size_t answer_size)
{
    const int listener = listen_at(path);
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    watch(epoll, listener);
    std::array<epoll_event, 256> events;
    static unsigned char buffer[65536];
    while (true) {
        const int ready = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < ready; ++i) {
            const int fd = events[static_cast<size_t>(i)].data.fd;
            if (fd == listener) {
                watch(epoll, accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            } else if (recv(fd, buffer, sizeof(buffer), 0) <= 0) {
                close(fd);
            } else {
                send(fd, buffer, answer_size, MSG_NOSIGNAL);
            }
        }
    }
}
