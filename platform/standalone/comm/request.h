// Classifies a received packet before it is handled.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/standalone/comm/packet.h"

namespace platform {

struct refusal {
    comm_protocol::error_code code;
    bool drop;        // the client is dropped
    const char* text; // for people
};

extern const refusal malformed_packet;
extern const refusal unknown_request;

// Checks framing, version and greeting, but not the body. Null when the request may be handled.
// *request is filled in as far as the packet is readable; an unreadable packet gets request number
// 0.
const refusal* judge_packet(const unsigned char* bytes, size_t size, bool greeted,
                            common_pkt_parsing* request);

} // namespace platform
