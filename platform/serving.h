// The serving of clients, one round at a time. Each idle function returns the amount of work done;
// negative means a fatal error.
#pragma once

#include "platform/comm.h"

extern comm_socket_v4_server* vexa_comm_server; // null until the platform has created the socket

int idle_vexa_server_comm();     // accepts, receives, sends; does nothing without a socket
int idle_vexa_client_contexts(); // answers pending requests
void close_vexa_client_contexts();
void vexa_idle_housekeeping();
