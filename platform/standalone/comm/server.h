// The comm server: accepts clients, reads one packet per readable client and round, sends queued
// packets, and disconnects clients. It knows packets and limits, but nothing of the item.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/epoll.h>
#include <vector>

#include "platform/comm.h"
#include "platform/standalone/comm/connection.h"
#include "platform/standalone/comm/listener.h"

namespace platform {

// Time limits and counts; the defaults are those of docs/protocol.md. Tests use others.
struct server_limits {
    size_t clients = comm_protocol::max_clients;
    uint64_t greeting_us = 5'000'000; // from the connection to the hello
    uint64_t unread_us = 5'000'000;   // that answers may be queued without any being read
    uint64_t round_gap_us = 500;      // between two polls of quiet sockets
    uint64_t busy_us = 1'000;         // of rounds without a wait; then there is a pause
    uint64_t tend_gap_us = 100'000;   // between two checks of the time limits
};

// The first two are called in the middle of a round. If they throw, the client is disconnected.
struct server_callbacks {
    // A request that may be handled; `packet` is the whole packet.
    void (*request)(comm_socket_v4_client& client, common_pkt_parsing& request,
                    const unsigned char* packet, size_t size, uint64_t now_us) = nullptr;
    // The client is leaving and can no longer be sent anything. Never called inside `request`.
    void (*left)(comm_socket_v4_client& client) = nullptr;
    // From now on this process serves.
    void (*reopened)() = nullptr;
};

} // namespace platform

// The fields are private to the server.
struct comm_socket_v4_server {
    platform::server_callbacks callbacks;
    platform::server_limits limits;
    unique_fd epoll;
    platform::connection_home home;
    platform::comm_listener listener;
    bool accepting = true;
    uint64_t accept_again_us = 0;
    std::vector<std::unique_ptr<comm_socket_v4_client>> clients;
    std::vector<comm_socket_v4_client*> ungreeted;
    std::array<epoll_event, 256> events = {};
    size_t events_ready = 0; // reported by the last wait and not yet handled
    uint64_t next_look_us = 0;
    uint64_t wake_us = UINT64_MAX; // a wait for clients ends by then; set by the service
    uint64_t next_tend_us = 0;
    uint64_t busy_us = 0; // time in rounds since the last pause or wait
    bool inside_round = false;
};

namespace platform {

// A server without a socket. Raises the soft limit of descriptors as far as possible; the limit of
// clients leaves some descriptors to the rest of the process. Null, after one line, when the kernel
// has no descriptor for it.
std::unique_ptr<comm_socket_v4_server> make_server(const server_callbacks& callbacks,
                                                   const server_limits& limits = {});

// False when the last round was idle, is less than a round gap ago, and nothing has been reported
// since.
bool round_is_due(const comm_socket_v4_server& server, uint64_t now_us);

// Removes a descriptor from the kernel's watch list before it is closed: after a fork another
// process may still hold it open, and it would still be reported.
void unwatch(const comm_socket_v4_server& server, int descriptor);

// Runs one round. Returns the amount of work done.
int run_round(comm_socket_v4_server& server, uint64_t now_us);

// Records after a round how long it and its consequences took. Clients that keep the server busy
// while it is polled in the middle of other work get about half of the time: after busy_us of
// rounds the next one is due only when the same time has passed without one. Waiting for clients
// ends this restriction.
void note_round_time(comm_socket_v4_server& server, uint64_t began_us, uint64_t ended_us);

// Handles one packet as if it had come from the client.
void take_packet(comm_socket_v4_server& server, comm_socket_v4_client& client,
                 const unsigned char* packet, size_t size, uint64_t now_us);

// Removes the clients that are leaving. Part of each round; also for the end, when there are no
// more rounds.
int remove_leaving(comm_socket_v4_server& server);

} // namespace platform
