// What clients are told unasked: changes, and the status document. The contract's call is
// json_check_xmit of platform/media_item.h.
#pragma once

#include <cstdint>

#include "platform/standalone/comm/server.h"

namespace platform {

// Sends the changes noted since the last time (report/changes.h). Readiness and the end at once, the rest at
// most 100 times a second. The number of clients told.
int send_changes(comm_socket_v4_server& server, uint64_t now_us);

// Progress that is out of date is no use at the end: tells the subscribers that the worker goes
// down.
void send_going_down(comm_socket_v4_server& server, uint64_t now_us);

// To a new subscriber: an EVENT without changes that tells the present state, and the document if
// it is part of the subscription.
void greet_subscriber(comm_socket_v4_client& client, uint64_t now_us);

// Queues the present status_document() for every subscriber of it. A document that a client has not
// begun to receive is replaced by the newer one.
void send_document_to_subscribers();

// The status document, built anew at most once a round however many ask for it.
void send_present_document(comm_socket_v4_client& client, uint64_t request, bool asked,
                           uint64_t now_us);
void begin_document_round();

// To its subscribers, when it has changed. The serving loop looks after that, too, but while a
// picture is decoded there is only the service's own round.
void send_changed_document(comm_socket_v4_server& server, uint64_t now_us);

void reset_client_events();

} // namespace platform
