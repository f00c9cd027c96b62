// The comm service of the item: its socket from creation to removal. The contract's calls are
// idle_vexa_server_comm, idle_vexa_client_contexts and close_vexa_client_contexts of
// platform/serving.h, and my_client_disconnect_handler of platform/clients.h.
#pragma once

namespace platform {

// Creates the socket at socket_path() and listens; the serve lock is held. From then on each
// idle_vexa_server_comm accepts clients, even before anything is known of the picture. False after
// one line, with nothing left behind, when no client could ever be served.
bool open_comm_service();

// Ends the comm service: clients are informed and disconnected, the socket is closed, and its file
// is removed if this process created it. For vexa_free_all; may run twice, or without a socket.
void close_comm_service();

} // namespace platform
