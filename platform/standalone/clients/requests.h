// Carries out each type of request. Wire format: docs/protocol.md.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/standalone/comm/connection.h"

namespace platform {

// The server's callback for a valid request.
void carry_out_request(comm_socket_v4_client& client, common_pkt_parsing& request,
                       const unsigned char* packet, size_t size, uint64_t now_us);

// The parts of HELLO and SUBSCRIBE that go through the client's context. 0, or -1 when the packet
// is malformed.
int answer_hello(unsigned long context_id, const comm_socket_v4_packet& request,
                 comm_socket_v4_packet* answer);
int take_subscription(comm_socket_v4_client& client, const comm_socket_v4_packet& request);

} // namespace platform
