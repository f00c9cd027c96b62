// A connection to a worker: its state, and the packets on its socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "client/deadline.h"
#include "client/shared_area.h"
#include "client/stillimage_client.h"
#include "common/unique_fd.h"
#include "wire/protocol.h"

// A packet from the worker. The body points into the connection's buffer and is valid until the
// next packet is received. The descriptor is the one that came with the packet, if any.
struct received_packet {
    comm_protocol::packet_header header;
    const unsigned char* body = nullptr;
    size_t size = 0;
    unique_fd descriptor;
};

struct stillimage_client {
    unique_fd socket;
    uint64_t last_request = 0;
    int32_t worker_pid = 0;
    std::string last_error;
    std::string socket_path;
    std::string picture;               // if connected by picture, else ""
    unsigned flags = 0;                // STILLIMAGE_START_WORKER
    std::vector<unsigned char> buffer; // of the packet received last

    // frames
    std::shared_ptr<shared_area> area;
    int32_t output_width = 0; // the worker's current value; -1: uncertain
    int32_t output_height = 0;
    std::set<uint64_t> abandoned_frames; // requests whose caller stopped waiting

    std::vector<uint64_t> unsent_releases; // references to release once the socket has room
    int unread_releases = 0;               // releases whose answers have not been read
    int late_packets = 0;                  // read by this call after its time limit
    std::set<stillimage_frame*> frames;    // held

    // subscription
    uint64_t subscription = 0;       // its request number, 0: none
    bool keeps_subscription = false; // renew it when the connection is made again
    uint32_t wanted_changes = 0;     // for the user's handler
    stillimage_event_handler handler = nullptr;
    void* handler_data = nullptr;
    bool in_handler = false;
    std::string document;        // the parts received so far
    stillimage_event state = {}; // the latest, without document
    std::string progress;
};

// Sets the last error and returns `result`. Control characters, which may come from the worker, are
// escaped.
stillimage_result fail(stillimage_client& client, stillimage_result result,
                       std::string_view reason);
stillimage_result fail_with_errno(stillimage_client& client, stillimage_result result,
                                  const std::string& what, int error);

// Sends one packet.
stillimage_result send_packet(stillimage_client& client, const comm_protocol::packet_bytes& packet,
                              const deadline& until);

// Receives the next packet. Closes the connection if the worker has ended or breaks the protocol.
stillimage_result receive_packet(stillimage_client& client, const deadline& until,
                                 received_packet* packet);
