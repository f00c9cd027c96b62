// A client that sends and receives single packets, well-formed or not, for tests of the worker's
// end of the protocol.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/unique_fd.h"
#include "wire/protocol.h"

struct received_packet {
    comm_protocol::packet_bytes bytes;
    comm_protocol::packet_header header;
    unique_fd descriptor;

    const unsigned char* body() const { return bytes.data() + comm_protocol::packet_header_size; }
    size_t body_size() const { return bytes.size() - comm_protocol::packet_header_size; }
    template <typename message>
    message as() const
    {
        message decoded;
        if (!comm_protocol::decode(body(), body_size(), &decoded)) {
            return message();
        }
        return decoded;
    }
};

class packet_client {
public:
    packet_client() = default;
    // Connects; see connected(). The socket does not block.
    explicit packet_client(const std::string& path);
    // Takes over a connected socket.
    explicit packet_client(unique_fd socket) : socket_(std::move(socket)) {}

    bool connected() const { return static_cast<bool>(socket_); }
    int error() const { return error_; } // of connecting
    int fd() const { return socket_.get(); }

    bool send(const comm_protocol::packet_bytes& packet) const;
    bool send_bytes(std::string_view bytes) const;
    bool send_with_descriptors(const comm_protocol::packet_bytes& packet, int fd,
                               size_t count) const;

    // The next packet; empty when none is waiting or the worker has hung up.
    std::optional<received_packet> receive() const;
    bool hung_up() const; // nothing is left to read and nothing more will arrive

    void stop_sending() const; // shuts down the sending half only
    void close() { socket_.reset(); }

private:
    unique_fd socket_;
    int error_ = 0;
};

// "4C 01 ..." with single blanks.
std::string to_hex(const comm_protocol::packet_bytes& bytes);
