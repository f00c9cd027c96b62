// Requests and their answers, and the packets that arrive in between.
#pragma once

#include <cstdint>
#include <string>

#include "client/connection.h"

// Sends the request with the number client.last_request and waits for its answer, which must have
// the type `expected`.
stillimage_result ask(stillimage_client& client, const comm_protocol::packet_bytes& request,
                      comm_protocol::packet_type expected, const deadline& until,
                      received_packet* answer);

// Waits for the next answer to request `number`.
stillimage_result await_answer(stillimage_client& client, uint64_t number,
                               comm_protocol::packet_type expected, const deadline& until,
                               received_packet* answer);

// Processes a packet that answers no pending request: an event, a part of a status document, a late
// frame. Returns the error of an ERROR packet without a request.
stillimage_result process_unsolicited(stillimage_client& client, received_packet& packet);

// The library's own changes: part of every subscription, so that stillimage_wait_ready learns of
// them.
inline constexpr uint32_t readiness =
    comm_protocol::change_provisional | comm_protocol::change_ready;

// Subscribes to the changes in `mask`; 0 unsubscribes.
stillimage_result subscribe(stillimage_client& client, uint32_t mask, const deadline& until);

// Reads the whole status document.
stillimage_result collect_status(stillimage_client& client, const deadline& until,
                                 std::string* document);

// Maps the buffer whose descriptor came with `frame`, if one did. STILLIMAGE_OK if the connection
// then has a mapping.
stillimage_result update_mapping(stillimage_client& client, const received_packet& packet,
                                 const comm_protocol::frame& frame);

// Releases a frame's reference. If the socket is full, it stays queued until send_releases() is
// called again, as ask() does. Answers to releases are ignored.
void release_reference(stillimage_client& client, uint64_t reference);
void send_releases(stillimage_client& client);
