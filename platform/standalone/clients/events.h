// What clients receive unsolicited: changes, and the status document. The contract's call is
// json_check_xmit of platform/document.h.
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

// Queues the present status_document() for every subscriber of it. It replaces an older document of
// which nothing has been sent to the client yet.
void send_document_to_subscribers();

// Sends the status document. It is rebuilt at most once per round, however many clients ask for it.
void send_present_document(comm_socket_v4_client& client, uint64_t request, bool asked,
                           uint64_t now_us);
void begin_document_round();

// Sends the document to its subscribers when it has changed. The serving loop does this as well,
// but while a picture is decoded only the service's own rounds run.
void send_changed_document(comm_socket_v4_server& server, uint64_t now_us);

void reset_client_events();

} // namespace platform
