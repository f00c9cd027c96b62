// The comm service of the item: the socket from its making to its end. The contract's calls are
// idle_vexa_server_comm, idle_vexa_client_contexts, close_vexa_client_contexts and
// my_client_disconnect_handler of platform/media_item.h.
#pragma once

namespace platform {

// Makes the socket at socket_path() and listens; the serve lock is held. From here on clients are
// taken in each idle_vexa_server_comm, also before anything is known of the picture. False with one
// line, and nothing left behind, when no client could ever be served.
bool open_comm_service();

// Ends the comm service: clients are told and let go, the socket is closed and its file removed
// when this process made it. For vexa_free_all; may run twice, or without a socket.
void close_comm_service();

} // namespace platform
