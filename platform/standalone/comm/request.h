// What a received packet is, before anything is done about it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/standalone/comm/packet.h"

namespace platform {

struct refusal {
    comm_protocol::error_code code;
    bool drop;        // the connection ends with it
    const char* text; // for people
};

extern const refusal malformed_packet;
extern const refusal unknown_request;

// Judges framing, version and greeting; the body is not looked at. Null when the request may be
// carried out. *request is filled in as far as the packet is readable: an unreadable one has
// request number 0.
const refusal* judge_packet(const unsigned char* bytes, size_t size, bool greeted,
                            common_pkt_parsing* request);

} // namespace platform
