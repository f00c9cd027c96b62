#include "platform/standalone/comm/server.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <poll.h>
#include <sys/resource.h>
#include <utility>

#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/comm/acceptor.h"
#include "platform/time.h"

namespace platform {

namespace {

constexpr rlim_t descriptors_for_others =
    32; // files, the frame buffer, one more for each time it is sent

const refusal no_memory = {comm_protocol::NO_MEMORY, true, "out of memory"};
const refusal no_greeting = {comm_protocol::NOT_GREETED, true, "no hello in time"};
const refusal stalled = {comm_protocol::SLOW_CLIENT, true, "answers were not read in time"};

size_t clients_that_fit(size_t wanted)
{
    rlimit descriptors = {};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) != 0) {
        return wanted;
    }
    if (descriptors.rlim_cur < descriptors.rlim_max) {
        rlimit raised = descriptors;
        raised.rlim_cur = raised.rlim_max;
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            descriptors = raised;
        }
    }
    const rlim_t all = std::max(descriptors.rlim_cur, descriptors_for_others + 1);
    return static_cast<size_t>(std::min<rlim_t>(wanted, all - descriptors_for_others));
}

// Sets the flag during its lifetime.
class round_mark {
public:
    explicit round_mark(bool& mark) : mark_(mark) { mark_ = true; }
    round_mark(const round_mark&) = delete;
    round_mark& operator=(const round_mark&) = delete;
    ~round_mark() { mark_ = false; }

private:
    bool& mark_;
};

void receive_packet(comm_socket_v4_server& server, comm_socket_v4_client& client, uint64_t now_us)
{
    // One buffer for all: a packet is consumed before the next is read. The extra byte
    // distinguishes a packet of the maximum size from a larger one.
    static unsigned char buffer[comm_protocol::max_packet_size + 1];
    size_t size = 0;
    const channel_result result = client.channel->receive(buffer, sizeof(buffer), &size);
    if (result == channel_result::DONE) {
        take_packet(server, client, buffer, std::min(size, sizeof(buffer)), now_us);
    } else if (result == channel_result::GONE) {
        leave(client);
    } else if (result == channel_result::NO_MEMORY) {
        drop(client, 0, no_memory);
    }
}

void serve_client(comm_socket_v4_server& server, comm_socket_v4_client& client, uint32_t events,
                  uint64_t now_us)
{
    if (client.leaving) {
        return;
    }
    if ((events & EPOLLOUT) != 0) {
        flush_answers(client, now_us);
    } else if ((events & EPOLLIN) != 0) {
        receive_packet(server, client, now_us);
    } else {
        leave(client);
    }
}

void serve_safely(comm_socket_v4_server& server, comm_socket_v4_client& client, uint32_t events,
                  uint64_t now_us)
{
    try {
        serve_client(server, client, events, now_us);
    } catch (const std::exception&) {
        drop(client, 0, no_memory);
    }
}

int serve_event(comm_socket_v4_server& server, const epoll_event& event, uint64_t now_us)
{
    if (event.data.ptr == &server.listener) {
        return accept_clients(server, now_us);
    }
    serve_safely(server, *static_cast<comm_socket_v4_client*>(event.data.ptr), event.events,
                 now_us);
    return 1;
}

int look_at_events(comm_socket_v4_server& server, uint64_t now_us)
{
    if (server.events_ready == 0) {
        const int ready = epoll_wait(server.epoll.get(), server.events.data(),
                                     static_cast<int>(server.events.size()), 0);
        server.events_ready = static_cast<size_t>(std::max(ready, 0));
    }
    int work = 0;
    for (size_t i = 0; i < server.events_ready; ++i) {
        work += serve_event(server, server.events[i], now_us);
    }
    server.events_ready = 0;
    return work;
}

// After a long time without rounds clients may have sent more than one round reads. So pending
// input is handled before a client is considered silent, or is found not to have read anything.
void take_what_has_come(comm_socket_v4_server& server, comm_socket_v4_client& client, short wanted,
                        uint64_t now_us)
{
    pollfd socket = {client.channel->descriptor(), wanted, 0};
    if (poll(&socket, 1, 0) > 0 && (socket.revents & wanted) != 0) {
        serve_safely(server, client, wanted == POLLIN ? EPOLLIN : EPOLLOUT, now_us);
    }
}

void drop_silent(comm_socket_v4_server& server, uint64_t now_us)
{
    for (comm_socket_v4_client* client : server.ungreeted) {
        if (!client->greeted && client->connected_us + server.limits.greeting_us < now_us) {
            take_what_has_come(server, *client, POLLIN, now_us);
            if (!client->greeted) {
                drop(*client, 0, no_greeting);
            }
        }
    }
    std::erase_if(server.ungreeted, [](const comm_socket_v4_client* c) { return c->greeted; });
}

bool has_stalled(const comm_socket_v4_server& server, const comm_socket_v4_client& client,
                 uint64_t now_us)
{
    return client.blocked && client.answers.stalled_since_us() + server.limits.unread_us < now_us;
}

// Iterates over a copy, because clients that have read are removed from the original.
void drop_stalled(comm_socket_v4_server& server, uint64_t now_us)
{
    const std::vector<comm_socket_v4_client*> blocked = server.home.blocked;
    for (comm_socket_v4_client* client : blocked) {
        if (has_stalled(server, *client, now_us)) {
            take_what_has_come(server, *client, POLLOUT, now_us);
            if (has_stalled(server, *client, now_us)) {
                drop(*client, 0, stalled);
            }
        }
    }
}

void tend_connections(comm_socket_v4_server& server, uint64_t now_us)
{
    if (now_us < server.next_tend_us) {
        return;
    }
    server.next_tend_us = now_us + server.limits.tend_gap_us;
    drop_silent(server, now_us);
    drop_stalled(server, now_us);
    tend_listeners(server, now_us);
}

// The only place where a connection ends.
void remove_client(comm_socket_v4_server& server, comm_socket_v4_client& client)
{
    server.callbacks.left(client);
    client.channel->finish();
    unwatch(server, client.channel->descriptor());
    std::erase(server.ungreeted, &client);
    std::erase(server.home.blocked, &client);
    const size_t place = client.place;
    if (place + 1 != server.clients.size()) {
        server.clients[place] = std::move(server.clients.back());
        server.clients[place]->place = place;
    }
    server.clients.pop_back();
}

} // namespace

std::unique_ptr<comm_socket_v4_server> make_server(const server_callbacks& callbacks,
                                                   const server_limits& limits)
{
    auto server = std::make_unique<comm_socket_v4_server>();
    server->callbacks = callbacks;
    server->limits = limits;
    server->limits.clients = clients_that_fit(limits.clients);
    server->epoll.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!server->epoll) {
        error_line("Comm server", "epoll", errno);
        return nullptr;
    }
    server->home.epoll = server->epoll.get();
    return server;
}

void unwatch(const comm_socket_v4_server& server, int descriptor)
{
    if (descriptor >= 0) {
        epoll_ctl(server.epoll.get(), EPOLL_CTL_DEL, descriptor, nullptr);
    }
}

bool round_is_due(const comm_socket_v4_server& server, uint64_t now_us)
{
    return server.events_ready > 0 || !server.home.leaving.empty() || now_us >= server.next_look_us;
}

int run_round(comm_socket_v4_server& server, uint64_t now_us)
{
    if (server.inside_round) {
        return 0;
    }
    const round_mark mark(server.inside_round);
    int work = look_at_events(server, now_us);
    tend_connections(server, now_us);
    work += remove_leaving(server);
    server.next_look_us = work > 0 ? now_us : now_us + server.limits.round_gap_us;
    return work;
}

void note_round_time(comm_socket_v4_server& server, uint64_t began_us, uint64_t ended_us)
{
    server.busy_us += ended_us - began_us;
    if (server.busy_us >= server.limits.busy_us) {
        server.next_look_us = ended_us + server.busy_us;
        server.busy_us = 0;
    }
}

void take_packet(comm_socket_v4_server& server, comm_socket_v4_client& client,
                 const unsigned char* packet, size_t size, uint64_t now_us)
{
    common_pkt_parsing request;
    const refusal* refused = judge_packet(packet, size, client.greeted, &request);
    if (refused != nullptr) {
        send_error(client, request.header.request, *refused, now_us);
    } else {
        server.callbacks.request(client, request, packet, size, now_us);
    }
}

int remove_leaving(comm_socket_v4_server& server)
{
    int removed = 0;
    // By index, because the callback may disconnect other clients.
    for (size_t i = 0; i < server.home.leaving.size(); ++i) {
        remove_client(server, *server.home.leaving[i]);
        ++removed;
    }
    server.home.leaving.clear();
    server.events_ready = 0; // they may refer to removed clients
    if (removed > 0) {
        resume_accepting(server);
    }
    return removed;
}

} // namespace platform

namespace {

timespec time_until(uint64_t deadline_us)
{
    constexpr uint64_t us_per_s = 1'000'000;
    constexpr uint64_t longest_us = 3600 * us_per_s;
    const uint64_t now_us = monotonic_clock_us();
    const uint64_t left_us = deadline_us > now_us ? std::min(deadline_us - now_us, longest_us) : 0;
    return {static_cast<time_t>(left_us / us_per_s), static_cast<long>(left_us % us_per_s * 1000)};
}

} // namespace

void comm_socket_v4_server_from_client_readable(comm_socket_v4_server* server, uint64_t deadline_us)
{
    const timespec left =
        time_until(server == nullptr ? deadline_us : std::min(deadline_us, server->wake_us));
    if (server == nullptr) {
        nanosleep(&left, nullptr);
        return;
    }
    // While waiting there is no other work, so the next round is due at once.
    server->busy_us = 0;
    server->next_look_us = 0;
    if ((left.tv_sec == 0 && left.tv_nsec == 0) || server->events_ready > 0) {
        return;
    }
    int ready = epoll_pwait2(server->epoll.get(), server->events.data(),
                             static_cast<int>(server->events.size()), &left, nullptr);
    if (ready < 0 && errno != EINTR) {
        // On kernels without that call only wait; the next round polls for the events.
        pollfd any = {server->epoll.get(), POLLIN, 0};
        ppoll(&any, 1, &left, nullptr);
        ready = 0;
    }
    server->events_ready = static_cast<size_t>(std::max(ready, 0));
}

int comm_socket_v4_reopen_server(comm_socket_v4_server* server)
{
    if (server == nullptr) {
        return 0;
    }
    const bool taken = platform::take_over_listener(*server);
    if (server->callbacks.reopened != nullptr) {
        server->callbacks.reopened();
    }
    return taken ? 0 : -1;
}
