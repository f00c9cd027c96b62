// The C interface: checks arguments, starts time limits, lets no exception pass.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "client/boundary.h"
#include "client/frames.h"
#include "client/requests.h"
#include "client/stillimage_client.h"

namespace {

constexpr uint32_t library_version = (1U << 16) | 1U;

stillimage_result bad_argument(stillimage_client& client, const char* what)
{
    return fail(client, STILLIMAGE_ERROR_ARGUMENT, what);
}

char* copy_text(const std::string& text)
{
    char* copy = static_cast<char*>(malloc(text.size() + 1));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

stillimage_result ask_for_done(stillimage_client& client,
                               const comm_protocol::packet_bytes& request, int timeout_ms)
{
    received_packet answer;
    return ask(client, request, comm_protocol::DONE, deadline(timeout_ms), &answer);
}

// Processes all packets that have arrived. `wait` is the time limit for the first one.
stillimage_result process_arrived(stillimage_client& client, const deadline& wait)
{
    received_packet packet;
    stillimage_result result = receive_packet(client, wait, &packet);
    while (result == STILLIMAGE_OK) {
        result = process_unsolicited(client, packet);
        packet.descriptor.reset();
        if (result == STILLIMAGE_OK) {
            result = receive_packet(client, deadline(0), &packet);
        }
    }
    send_releases(client);
    if (result == STILLIMAGE_ERROR_TIMEOUT) {
        client.last_error.clear();
        return STILLIMAGE_OK;
    }
    return result;
}

bool is_ready(const stillimage_client& client, int provisional)
{
    return client.state.ready == 1 || (client.state.ready == -1 && provisional != 0);
}

} // namespace

uint32_t stillimage_client_version(void)
{
    return library_version;
}

const char* stillimage_result_text(stillimage_result result)
{
    switch (result) {
    case STILLIMAGE_OK:
        return "done";
    case STILLIMAGE_ERROR_ARGUMENT:
        return "bad argument";
    case STILLIMAGE_ERROR_NO_WORKER:
        return "no worker there";
    case STILLIMAGE_ERROR_TIMEOUT:
        return "time limit passed";
    case STILLIMAGE_ERROR_REFUSED:
        return "refused";
    case STILLIMAGE_ERROR_NOT_READY:
        return "not ready";
    case STILLIMAGE_ERROR_NO_FRAME:
        return "no such frame";
    case STILLIMAGE_ERROR_PROTOCOL:
        return "protocol broken";
    case STILLIMAGE_ERROR_RECORD:
        return "invalid description of the picture";
    case STILLIMAGE_ERROR_SYSTEM:
        return "out of memory or system resources";
    case STILLIMAGE_ERROR_VALUE:
        return "value refused";
    case STILLIMAGE_ERROR_LIMIT:
        return "limit reached";
    case STILLIMAGE_ERROR_NOT_STORED:
        return "applied, but not stored";
    }
    return "unknown result";
}

void stillimage_close(stillimage_client* client)
{
    if (client == nullptr || client->in_handler) {
        return;
    }
    for (stillimage_frame* frame : client->frames) {
        frame->owner = nullptr;
    }
    delete client;
}

const char* stillimage_last_error(const stillimage_client* client)
{
    return client == nullptr ? "" : client->last_error.c_str();
}

int stillimage_descriptor(const stillimage_client* client)
{
    return client == nullptr ? -1 : client->socket.get();
}

int32_t stillimage_worker_pid(const stillimage_client* client)
{
    return client == nullptr ? 0 : client->worker_pid;
}

stillimage_result stillimage_dispatch(stillimage_client* client, int timeout_ms)
{
    return at_boundary(
        client, [&](stillimage_client& c) { return process_arrived(c, deadline(timeout_ms)); });
}

stillimage_result stillimage_subscribe(stillimage_client* client, uint32_t mask,
                                       stillimage_event_handler handler, void* user, int timeout_ms)
{
    return at_boundary(client, [&](stillimage_client& c) {
        c.handler = mask != 0 ? handler : nullptr;
        c.handler_data = user;
        c.wanted_changes = mask;
        c.keeps_subscription = mask != 0;
        return subscribe(c, mask != 0 ? mask | readiness : 0, deadline(timeout_ms));
    });
}

stillimage_result stillimage_wait_ready(stillimage_client* client, int provisional, int timeout_ms)
{
    return at_boundary(client, [&](stillimage_client& c) {
        const deadline until(timeout_ms);
        stillimage_result result = STILLIMAGE_OK;
        if (c.subscription == 0) {
            result = subscribe(c, readiness, until);
        }
        while (result == STILLIMAGE_OK && !is_ready(c, provisional)) {
            received_packet packet;
            result = receive_packet(c, until, &packet);
            if (result == STILLIMAGE_OK) {
                result = process_unsolicited(c, packet);
            }
        }
        return result;
    });
}

stillimage_result stillimage_get_frame(stillimage_client* client, uint64_t time_position,
                                       int32_t wanted_width, int32_t wanted_height, int timeout_ms,
                                       stillimage_frame** frame)
{
    return at_boundary(client, [&](stillimage_client& c) {
        if (frame == nullptr) {
            return bad_argument(c, "no place for the frame");
        }
        *frame = nullptr;
        // Without waiting for the picture, an answer still takes a moment.
        constexpr int answer_ms = 1000;
        const deadline until(timeout_ms == 0 ? answer_ms : timeout_ms);
        const uint32_t flags = timeout_ms == 0 ? 0 : comm_protocol::get_frame_wait;
        stillimage_result result = set_output_size(c, wanted_width, wanted_height, until);
        std::unique_ptr<stillimage_frame> taken;
        if (result == STILLIMAGE_OK) {
            result = get_frame(c, {time_position, flags}, until, &taken);
        }
        *frame = taken.release();
        return result;
    });
}

const stillimage_picture* stillimage_frame_picture(const stillimage_frame* frame)
{
    static const stillimage_picture empty = {};
    return frame == nullptr ? &empty : &frame->picture;
}

const stillimage_descriptor_info* stillimage_frame_descriptor(const stillimage_frame* frame)
{
    static const stillimage_descriptor_info empty = {};
    return frame == nullptr ? &empty : &frame->descriptor;
}

void stillimage_frame_release(stillimage_frame* frame)
{
    if (frame == nullptr) {
        return;
    }
    const std::unique_ptr<stillimage_frame> owned(frame);
    if (frame->owner == nullptr) {
        return;
    }
    stillimage_client& client = *frame->owner;
    client.frames.erase(frame);
    try {
        release_reference(client, frame->reference);
        // Unread answers to releases would fill the worker's queue.
        constexpr int max_unread = 64;
        if (++client.unread_releases >= max_unread && !client.in_handler) {
            client.late_packets = 0;
            process_arrived(client, deadline(0));
            client.unread_releases = 0;
        }
    } catch (const std::exception&) {
        client.last_error.clear(); // the worker reclaims the frame when the connection ends
    }
}

stillimage_result stillimage_get_status(stillimage_client* client, int timeout_ms, char** json)
{
    return at_boundary(client, [&](stillimage_client& c) {
        if (json == nullptr) {
            return bad_argument(c, "no place for the document");
        }
        *json = nullptr;
        std::string document;
        const stillimage_result result = collect_status(c, deadline(timeout_ms), &document);
        if (result == STILLIMAGE_OK) {
            *json = copy_text(document);
        }
        return result;
    });
}

void stillimage_free(void* memory)
{
    free(memory);
}

stillimage_result stillimage_set_metadata(stillimage_client* client, const char* name,
                                          const char* value, int timeout_ms)
{
    return at_boundary(client, [&](stillimage_client& c) {
        if (name == nullptr || value == nullptr ||
            strlen(name) > comm_protocol::max_set_metadata_name ||
            strlen(value) > comm_protocol::max_set_metadata_value) {
            return bad_argument(
                c, "a name of at most 256 bytes and a value of at most 16384 are needed");
        }
        return ask_for_done(
            c, comm_protocol::encode(++c.last_request, comm_protocol::set_metadata{name, value}),
            timeout_ms);
    });
}

stillimage_result stillimage_quit(stillimage_client* client, int timeout_ms)
{
    return at_boundary(client, [&](stillimage_client& c) {
        return ask_for_done(c, comm_protocol::encode_empty(++c.last_request, comm_protocol::EXIT),
                            timeout_ms);
    });
}

stillimage_result stillimage_ping(stillimage_client* client, int timeout_ms)
{
    return at_boundary(client, [&](stillimage_client& c) {
        received_packet answer;
        const auto request = comm_protocol::encode_ping(++c.last_request, comm_protocol::PING,
                                                        comm_protocol::ping{c.last_request});
        return ask(c, request, comm_protocol::PONG, deadline(timeout_ms), &answer);
    });
}
