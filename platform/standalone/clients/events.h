// The changes that clients receive unsolicited. The status document: documents.h.
#pragma once

#include <cstdint>

#include "platform/standalone/comm/server.h"

namespace platform {

// Sends the changes recorded since the last time (report/changes.h): readiness and the end at once,
// others at most 100 times a second. Returns the number of clients that were sent an event.
int send_changes(comm_socket_v4_server& server, uint64_t now_us);

// Informs the subscribers that the worker is going down, without waiting for the rate limit.
void send_going_down(comm_socket_v4_server& server, uint64_t now_us);

// Sends a new subscriber an EVENT without changes that contains the present state, and the document
// if it is part of the subscription.
void greet_subscriber(comm_socket_v4_client& client, uint64_t now_us);

void reset_client_events();

} // namespace platform
