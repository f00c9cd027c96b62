// One connection: the socket, the packets on it, and what the worker sends unasked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "client/deadline.h"
#include "client/owned_fd.h"
#include "client/shared_area.h"
#include "client/stillimage_client.h"
#include "wire/protocol.h"

// A packet as it came: its head, its body (a view into the connection's buffer, valid until the
// next packet is taken in) and the descriptor that travelled with it.
struct received_packet {
    comm_protocol::packet_header header;
    const unsigned char* body = nullptr;
    size_t size = 0;
    owned_fd descriptor;
};

struct stillimage_client {
    owned_fd socket;
    uint64_t last_request = 0;
    int32_t worker_pid = 0;
    std::string last_error;
    std::string socket_path;
    std::string picture;   // connected by picture, else ""
    unsigned flags = 0;    // STILLIMAGE_START_WORKER
    bool greeting = false; // the worker took the newest connection; it may have gone since
    std::vector<unsigned char> buffer; // of the packet at hand

    // frames
    std::shared_ptr<shared_area> area;
    int32_t output_width = 0; // as the worker knows it; -1: unsure
    int32_t output_height = 0;
    std::set<uint64_t> abandoned_frames; // requests whose answer came too late for their caller

    std::vector<uint64_t> unsent_releases; // references that found the socket full
    int unread_releases = 0;
    int late_packets = 0;               // taken in by this call after its time limit
    std::set<stillimage_frame*> frames; // held

    // subscription
    uint64_t subscription = 0;       // its request number, 0: none
    bool keeps_subscription = false; // one is wanted, also while there is no connection
    uint32_t wanted_changes = 0;     // what the user's handler asked for
    stillimage_event_handler handler = nullptr;
    void* handler_data = nullptr;
    bool in_handler = false;
    std::string document;        // taken together from its parts
    stillimage_event state = {}; // the newest, without document
    std::string progress;
};

// Keeps the reason and gives the result back.
stillimage_result fail(stillimage_client& client, stillimage_result result, std::string reason);

// Connects, checks who serves there, and exchanges greetings. A worker that is not there is waited
// for until `start` passes.
stillimage_result open_connection(stillimage_client& client, const std::string& path,
                                  const deadline& start, const deadline& until);

inline constexpr int start_ms = 5000; // in which a worker that is just starting is there

// Asks for these changes.
stillimage_result subscribe(stillimage_client& client, uint32_t mask, const deadline& until);

// Readiness is always part of a subscription, so that stillimage_wait_ready hears of it.
inline constexpr uint32_t readiness =
    comm_protocol::change_provisional | comm_protocol::change_ready;

// Sends one packet.
stillimage_result send_packet(stillimage_client& client, const comm_protocol::packet_bytes& packet,
                              const deadline& until);

// Takes the next packet in. The connection is closed when the worker has gone or breaks the
// protocol.
stillimage_result receive_packet(stillimage_client& client, const deadline& until,
                                 received_packet* packet);

// Does with a packet that nobody waits for what is to be done: events, late frames. An error that
// answers no request is the result.
stillimage_result take_unasked(stillimage_client& client, received_packet& packet);

// Gives a frame's hold back to the worker, at once or, when the socket is full, with what is sent
// next. The worker's answer is passed over.
void release_reference(stillimage_client& client, uint64_t reference);
void send_releases(stillimage_client& client);

// One more part of a status document, appended to *document.
enum class document_progress { MORE, WHOLE, BROKEN };
document_progress add_document_part(const received_packet& packet, std::string* document);

// The whole status document.
stillimage_result collect_status(stillimage_client& client, const deadline& until,
                                 std::string* document);

// Maps the buffer whose descriptor came along with `frame`, if one did. STILLIMAGE_OK when the
// connection has a mapping that holds the frame's area.
stillimage_result keep_area(stillimage_client& client, const received_packet& packet,
                            const comm_protocol::frame& frame);

// Sends the request numbered client.last_request and takes packets in until its answer is there,
// which must be of type `expected`.
stillimage_result ask(stillimage_client& client, const comm_protocol::packet_bytes& request,
                      comm_protocol::packet_type expected, const deadline& until,
                      received_packet* answer);

// Takes packets in until the next answer to request `number`.
stillimage_result await_answer(stillimage_client& client, uint64_t number,
                               comm_protocol::packet_type expected, const deadline& until,
                               received_packet* answer);
