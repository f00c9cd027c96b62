// One connection. Owned by its server, which removes it at the end of a round and never inside one,
// so that a pointer to it stays good while requests are carried out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/standalone/comm/answer_queue.h"
#include "platform/standalone/comm/channel.h"
#include "platform/standalone/comm/request.h"

namespace platform {

// What a server's connections share with it.
struct connection_home {
    int epoll = -1;                              // borrowed; negative: nothing is watched
    std::vector<comm_socket_v4_client*> leaving; // each once, in the order of leaving
    std::vector<comm_socket_v4_client*> blocked; // answers wait for room in the channel
};

} // namespace platform

struct comm_socket_v4_client {
    unsigned long id = 0; // never used twice in one process
    std::unique_ptr<platform::packet_channel> channel;
    platform::connection_home* home = nullptr;
    platform::answer_queue answers;
    uint64_t connected_us = 0;

    // Written by whoever carries out the requests.
    bool greeted = false;
    bool descriptor_sent = false; // the frame buffer's
    uint32_t subscribed = 0;      // comm_protocol::change_*
    uint64_t subscription = 0;    // request number of the subscription
    uint64_t document_sent = 0;   // generation of the document that the subscription sent last
    unsigned long context_id = 0; // 0 before the hello

    bool leaving = false; // nothing more is done for it
    bool blocked = false; // in the list of those; no request of it is read meanwhile
    bool paused = false;  // no request of it is read: an answer has to be given first
    size_t place = 0;     // in the server's list
};

namespace platform {

// Sends or queues an answer; a client that cannot take it starts to leave.
void send_answer(comm_socket_v4_client& client, comm_socket_v4_packet packet, uint64_t now_us);
void send_error(comm_socket_v4_client& client, uint64_t request, const refusal& reason,
                uint64_t now_us);
void send_status(comm_socket_v4_client& client, document_text document, uint64_t request,
                 bool asked, uint64_t now_us);
void send_event(comm_socket_v4_client& client, uint32_t changes, const event_state& state,
                uint64_t now_us);

// Sends on what waits; to be called when the channel has room again.
void flush_answers(comm_socket_v4_client& client, uint64_t now_us);

// Reads no further request of the client until resume_requests. That it hangs up is still noticed.
void pause_requests(comm_socket_v4_client& client);
void resume_requests(comm_socket_v4_client& client);

// Has the kernel report `events` of the client from now on. False when it refuses.
bool watch(comm_socket_v4_client& client, uint32_t events, bool anew);

// Lets the client go at the end of the round.
void leave(comm_socket_v4_client& client);

// The same, but tells the client why, as far as it still reads.
void drop(comm_socket_v4_client& client, uint64_t request, const refusal& reason);

} // namespace platform
