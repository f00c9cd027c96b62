// The greeted clients: their contexts, the frames they hold, and their pending frame requests. All
// state of a client is found by the id of its context and is freed with its connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "platform/clients.h"

// A GET_FRAME that is not answered yet.
struct vexa_video_pending_request {
    uint64_t request = 0; // number to answer under
    uint64_t time_position = 0;
    bool wait = false; // until the picture is ready
};

namespace platform {

struct held_reference {
    std::unique_ptr<vexa_video_frame_reference> reference;
    bool holds_frame = false; // addref_frame succeeded
    uint64_t since_us = 0;
};

struct client_record {
    comm_socket_v4_client* connection = nullptr;
    std::vector<vexa_video_pending_request> pending; // oldest first
    std::map<unsigned long, held_reference> references;
};

// Each client may hold comm_protocol::guaranteed_references, whatever others hold. This is the
// limit of what all clients together hold beyond that; above it GET_FRAME is refused.
inline constexpr size_t max_common_references = 131072;

// References that clients hold at present beyond their guaranteed ones.
size_t common_references();

// Clients that have been greeted and have not left.
size_t connected_clients();

// Creates the context of a client that sent HELLO. Null when the factory returns none.
vexa_client_context* create_context(comm_socket_v4_client& connection);

// Frees all state of the connection's client. Fine for one without a context.
void forget_client(comm_socket_v4_client& connection);

// Null when there is no such context.
client_record* find_client(unsigned long context_id);

// True when the client may hold one more frame.
bool may_hold_another(const client_record& client);

// Restarts the numbers at 1; only while there are no clients.
void reset_client_numbers();

} // namespace platform
