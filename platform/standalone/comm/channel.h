// Transports packets between two ends: a socket in the worker, memory in tests and fuzzers.
#pragma once

#include <cstddef>

#include "platform/standalone/comm/packet.h"

namespace platform {

enum class channel_result {
    DONE,
    AGAIN,     // nothing to receive, or no room, for now
    GONE,      // the other end has left, or the channel is broken
    NO_MEMORY, // the kernel has none for this packet; not the fault of the other end
};

class packet_channel {
public:
    packet_channel() = default;
    packet_channel(const packet_channel&) = delete;
    packet_channel& operator=(const packet_channel&) = delete;
    virtual ~packet_channel() = default;

    // Receives one packet. *size is its true size; when that exceeds `capacity`, the rest of the
    // packet is lost. Descriptors that came with it are closed.
    virtual channel_result receive(unsigned char* buffer, size_t capacity, size_t* size) = 0;

    virtual channel_result send(const comm_socket_v4_packet& packet) = 0;

    // Ends the connection such that the other end can still read what was sent to it.
    virtual void finish() = 0;

    // For the kernel's readiness calls; negative when there is none.
    virtual int descriptor() const = 0;
};

} // namespace platform
