// What the rest of the media item asks of the connected clients. Sending never blocks and never
// fails towards the caller; a client that does not read is the comm socket's business.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

// Clients that have been greeted and have not left.
size_t connected_clients();

// Notes that something of the item has changed (comm_protocol::change_*). Subscribers hear of it in
// one of the next rounds of idle_vexa_server_comm, several changes in one EVENT that carries the
// newest state. Costs an "or": may be called from any depth, as often as the caller likes.
void notify_clients(uint32_t changes);

// Queues the present status_document() for every subscriber of it. A document that a client has not
// begun to receive is replaced by the newer one.
void send_document_to_subscribers();

// Makes the socket at socket_path() and listens; the serve lock is held. From here on clients are
// taken in each idle_vexa_server_comm, also before anything is known of the picture. False with one
// line, and nothing left behind, when no client could ever be served.
bool open_comm_service();

// Ends the comm service: clients are told and let go, the socket is closed and its file removed
// when this process made it. For vexa_free_all; may run twice, or without a socket.
void close_comm_service();

} // namespace platform
