#include "platform/standalone/comm/acceptor.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/comm/socket_channel.h"

namespace platform {

namespace {

constexpr int max_accepted_per_round = 64;
constexpr uint64_t accept_pause_us = 1'000'000;

const refusal too_many_clients = {comm_protocol::LIMIT, true, "too many clients"};
const refusal foreign_user = {comm_protocol::NOT_ALLOWED, true, "another user's process"};
const refusal unknown_user = {comm_protocol::NOT_ALLOWED, true,
                              "the kernel does not tell whose process this is"};
const refusal cannot_watch = {comm_protocol::NO_MEMORY, true,
                              "the kernel cannot watch this connection"};

unsigned long last_connection = 0; // number of the newest connection of this process

bool watch_listener(comm_socket_v4_server& server, int operation, uint32_t events)
{
    epoll_event wanted = {};
    wanted.events = events;
    wanted.data.ptr = &server.listener;
    return epoll_ctl(server.epoll.get(), operation, server.listener.socket.get(), &wanted) == 0;
}

void pause_accepting(comm_socket_v4_server& server, uint64_t now_us)
{
    server.accepting = false;
    server.accept_again_us = now_us + accept_pause_us;
    watch_listener(server, EPOLL_CTL_MOD, 0);
}

// Null when the process at the other end may be served, otherwise the refusal.
const refusal* judge_peer(int socket)
{
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return &unknown_user;
    }
    return peer.uid == geteuid() || peer.uid == 0 ? nullptr : &foreign_user;
}

void turn_away(packet_channel& channel, const refusal& reason)
{
    channel.send({comm_protocol::encode(0, comm_protocol::error{reason.code, reason.text}), {}});
    channel.finish();
}

bool out_of_descriptors(int error_number)
{
    return error_number == EMFILE || error_number == ENFILE || error_number == ENOBUFS ||
           error_number == ENOMEM;
}

} // namespace

bool start_listening(comm_socket_v4_server& server, const std::string& path)
{
    if (!clear_socket_path(path) || !open_listener(path, &server.listener)) {
        return false;
    }
    if (!watch_listener(server, EPOLL_CTL_ADD, EPOLLIN)) {
        error_line("Comm socket", path, errno);
        close_listener(&server.listener);
        return false;
    }
    return true;
}

comm_socket_v4_client* adopt(comm_socket_v4_server& server, std::unique_ptr<packet_channel> channel,
                             uint64_t now_us)
{
    if (server.clients.size() >= server.limits.clients) {
        turn_away(*channel, too_many_clients);
        return nullptr;
    }
    auto client = std::make_unique<comm_socket_v4_client>();
    client->id = ++last_connection;
    client->channel = std::move(channel);
    client->home = &server.home;
    client->connected_us = now_us;
    client->place = server.clients.size();
    if (!watch(*client, EPOLLIN, true)) {
        turn_away(*client->channel, cannot_watch);
        return nullptr;
    }
    server.ungreeted.push_back(client.get());
    server.clients.push_back(std::move(client));
    return server.clients.back().get();
}

int accept_clients(comm_socket_v4_server& server, uint64_t now_us)
{
    int accepted = 0;
    while (accepted < max_accepted_per_round) {
        unique_fd socket(
            accept4(server.listener.socket.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!socket) {
            if (out_of_descriptors(errno)) {
                pause_accepting(server, now_us);
            }
            return accepted;
        }
        ++accepted;
        const refusal* refused = judge_peer(socket.get());
        auto channel = make_socket_channel(std::move(socket));
        if (refused == nullptr) {
            adopt(server, std::move(channel), now_us);
        } else {
            turn_away(*channel, *refused);
        }
    }
    return accepted;
}

void resume_accepting(comm_socket_v4_server& server)
{
    if (!server.accepting) {
        server.accepting = true;
        watch_listener(server, EPOLL_CTL_MOD, EPOLLIN);
    }
}

// Listening again writes this process's credentials into the socket, where clients read them.
bool take_over_listener(comm_socket_v4_server& server)
{
    server.listener.owner = getpid();
    if (listen(server.listener.socket.get(), SOMAXCONN) != 0) {
        error_line("Comm socket", server.listener.path, errno);
        return false;
    }
    return true;
}

void tend_listeners(comm_socket_v4_server& server, uint64_t now_us)
{
    if (!server.accepting && now_us >= server.accept_again_us) {
        resume_accepting(server);
    }
}

} // namespace platform
