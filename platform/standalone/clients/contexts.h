// The greeted clients: their contexts, the frames they hold, the frame requests they wait for.
// Everything of a client is found by its context's id and goes when its connection does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "platform/media_item.h"

// A GET_FRAME that is not answered yet.
struct vexa_video_pending_request {
    uint64_t request = 0; // number to answer under
    uint64_t time_position = 0;
    bool wait = false; // for the picture to be ready
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

// All clients' references together; beyond it GET_FRAME is refused.
inline constexpr size_t max_references_of_all = 131072;

// Clients that have been greeted and have not left.
size_t connected_clients();

// Makes the context of a client that said hello. Null when the factory gives none.
vexa_client_context* create_context(comm_socket_v4_client& connection);

// Gives back everything of the connection's client. Fine for one without a context.
void forget_client(comm_socket_v4_client& connection);

// Null when there is no such context.
client_record* find_client(unsigned long context_id);

// True when the client may hold one more frame.
bool may_hold_another(const client_record& client);

// Numbers begin anew at 1; only while there are no clients.
void reset_client_numbers();

} // namespace platform
