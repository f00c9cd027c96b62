// Listening and accepting, also when descriptors run out.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/standalone/comm/server.h"

namespace platform {

// Binds and listens; a stale socket file is replaced. False with one line on failure.
bool start_listening(comm_socket_v4_server& server, const std::string& path);

// Adopts a connection. Null when it is refused; the client has then been sent the reason.
comm_socket_v4_client* adopt(comm_socket_v4_server& server, std::unique_ptr<packet_channel> channel,
                             uint64_t now_us);

// Accepts waiting connections, a bounded number of them, and returns how many there were. When the
// process or the machine has no free descriptor, accepting pauses until a client leaves or a second
// has passed: a listening socket that stays readable would keep the loop awake for nothing.
int accept_clients(comm_socket_v4_server& server, uint64_t now_us);

void resume_accepting(comm_socket_v4_server& server);

// The inherited listening socket becomes this process's own. False with one line on failure; it is
// still served.
bool take_over_listener(comm_socket_v4_server& server);

// Work that depends on time: accepting again.
void tend_listeners(comm_socket_v4_server& server, uint64_t now_us);

} // namespace platform
