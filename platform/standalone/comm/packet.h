// The contents of the platform's opaque packet types.
#pragma once

#include <cstddef>

#include "common/unique_fd.h"
#include "platform/comm.h"
#include "wire/protocol.h"

// A whole packet, header included.
struct comm_socket_v4_packet {
    comm_protocol::packet_bytes bytes;
    unique_fd descriptor; // sent with it, if there is one
};

// A received request. `body` points into the packet that contained it.
struct common_pkt_parsing {
    comm_protocol::packet_header header;
    const unsigned char* body = nullptr;
    size_t body_size = 0;
};
