// One connection. Owned by its server, which removes connections only at the end of a round, so
// that a pointer to one stays valid while requests are handled.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/standalone/comm/answer_queue.h"
#include "platform/standalone/comm/channel.h"
#include "platform/standalone/comm/packet.h"

namespace platform {

struct refusal {
    comm_protocol::error_code code;
    bool drop;        // the client is dropped
    const char* text; // for people
};

extern const refusal malformed_packet;
extern const refusal unknown_request;

// Checks framing, version and greeting, but not the body. Null when the request may be handled.
// *request is filled in as far as the packet is readable; an unreadable packet gets request number
// 0.
const refusal* judge_packet(const unsigned char* bytes, size_t size, bool greeted,
                            common_pkt_parsing* request);

// What a server's connections share with it.
struct connection_home {
    int epoll = -1;                              // borrowed; negative: nothing is watched
    std::vector<comm_socket_v4_client*> leaving; // each once, in the order in which they left
    std::vector<comm_socket_v4_client*> blocked; // their answers wait for room in the channel
};

} // namespace platform

struct comm_socket_v4_client {
    unsigned long id = 0; // never used twice in one process
    std::unique_ptr<platform::packet_channel> channel;
    platform::connection_home* home = nullptr;
    platform::answer_queue answers;
    uint64_t connected_us = 0;

    // Written by the code that handles requests.
    bool greeted = false;
    bool descriptor_sent = false; // the frame buffer's
    uint32_t subscribed = 0;      // comm_protocol::change_*
    uint64_t subscription = 0;    // request number of the subscription
    uint64_t document_sent = 0; // generation of the document that was last sent to the subscription
    unsigned long context_id = 0; // 0 before the hello

    bool leaving = false; // it is no longer served
    bool blocked = false; // in home->blocked; its requests are not read meanwhile
    bool paused = false;  // its requests are not read until an answer has been sent
    size_t place = 0;     // index in the server's list
};

namespace platform {

// Sends or queues an answer. A client that cannot receive it starts to leave.
void send_answer(comm_socket_v4_client& client, comm_socket_v4_packet packet, uint64_t now_us);
void send_error(comm_socket_v4_client& client, uint64_t request, const refusal& reason,
                uint64_t now_us);
void send_status(comm_socket_v4_client& client, document_text document, uint64_t request,
                 bool asked, uint64_t now_us);
void send_event(comm_socket_v4_client& client, uint32_t changes, const event_state& state,
                uint64_t now_us);

// Sends queued packets. To be called when the channel has room again.
void flush_answers(comm_socket_v4_client& client, uint64_t now_us);

// Stops reading requests of the client until resume_requests. A hang-up is still noticed.
void pause_requests(comm_socket_v4_client& client);
void resume_requests(comm_socket_v4_client& client);

// Makes the kernel report `events` of the client from now on. False when it refuses.
bool watch(comm_socket_v4_client& client, uint32_t events, bool is_new);

// Disconnects the client at the end of the round.
void leave(comm_socket_v4_client& client);

// The same, but sends the client the reason first, if it still reads.
void drop(comm_socket_v4_client& client, uint64_t request, const refusal& reason);

} // namespace platform
