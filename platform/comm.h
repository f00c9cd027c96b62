// The local comm socket through which clients talk to the worker. Wire format: docs/protocol.md.
#pragma once

#include <cstdint>

struct comm_socket_v4_server; // the listening socket with its connections
struct comm_socket_v4_client; // one connection
struct comm_socket_v4_packet; // one packet, received or to be sent
struct common_pkt_parsing;    // the parsed head of a client's request

// Waits until a client is readable or `deadline_us` (monotonic) has passed; a deadline in the past
// returns at once. A signal or a null server may end the wait early or late, but is never an error.
void comm_socket_v4_server_from_client_readable(comm_socket_v4_server* server,
                                                uint64_t deadline_us);

// A daemonised child takes over the listening socket that it has inherited: it removes the file at
// its end, and new connections carry its process id. Connections that are accepted or waiting are
// kept. 0 or -1.
int comm_socket_v4_reopen_server(comm_socket_v4_server* server);
