#include "platform/standalone/clients/requests.h"

#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "platform/run_state.h"
#include "platform/standalone/clients/contexts.h"
#include "platform/standalone/clients/documents.h"
#include "platform/standalone/clients/events.h"
#include "platform/standalone/clients/frames.h"
#include "platform/standalone/clients/settings.h"
#include "platform/standalone/item/client_settings.h"
#include "platform/standalone/report/changes.h"
#include "platform/standalone/report/document.h"

void (*vexa_on_metadata_set)(comm_socket_v4_client* client, const char* name,
                             std::string& value) = nullptr;

namespace platform {

using namespace comm_protocol;

namespace {

const refusal no_context = {NO_MEMORY, true, "no memory for a client context"};
const refusal too_many_pending = {LIMIT, false, "too many pending requests"};
const refusal unknown_reference = {NO_SUCH_REFERENCE, false, "not a reference of this connection"};
const refusal refused_value = {REFUSED_VALUE, false, "this metadata may not be set so"};

// One received request and the client it came from.
struct request_call {
    comm_socket_v4_client& client;
    common_pkt_parsing& request;
    const unsigned char* packet;
    size_t size;
    uint64_t now_us;

    uint64_t number() const { return request.header.request; }
    comm_socket_v4_packet copy() const
    {
        return {packet_bytes(packet, packet + size), unique_fd()};
    }
};

// Each row's function returns null when it carried out the request, otherwise the refusal to send.
using request_function = const refusal* (*)(const request_call& call);

template <typename message>
bool read_body(const request_call& call, message* body)
{
    return decode(call.request.body, call.request.body_size, body);
}

const refusal* done(const request_call& call)
{
    send_answer(call.client, {encode_empty(call.number(), DONE), {}}, call.now_us);
    return nullptr;
}

vexa_client_context* context_of(const request_call& call)
{
    client_context_tracking* tracked =
        client_context_tracking::get_id(vexa_client_contexts, call.client.context_id);
    return tracked != nullptr ? tracked->context : nullptr;
}

const refusal* say_hello(const request_call& call)
{
    hello body;
    if (!read_body(call, &body)) {
        return &malformed_packet;
    }
    vexa_client_context* context = create_context(call.client);
    if (context == nullptr) {
        return &no_context;
    }
    comm_socket_v4_packet request = call.copy();
    comm_socket_v4_packet answer;
    if (context->on_get_context_id(&request, &answer) != 0) {
        return &malformed_packet;
    }
    call.client.greeted = true;
    send_answer(call.client, std::move(answer), call.now_us);
    return nullptr;
}

const refusal* set_size(const request_call& call)
{
    set_output_size body;
    if (!read_body(call, &body)) {
        return &malformed_packet;
    }
    context_of(call)->set_client_context_info(&call.request);
    return done(call);
}

const refusal* give_status(const request_call& call)
{
    give_document(call.client, call.number(), true, call.now_us);
    return nullptr;
}

const refusal* start_subscription(const request_call& call)
{
    comm_socket_v4_packet request = call.copy();
    if (context_of(call)->on_json_cun(&request) != 0) {
        return &malformed_packet;
    }
    done(call);
    greet_subscriber(call.client, call.now_us);
    return nullptr;
}

const refusal* ask_for_frame(const request_call& call)
{
    get_frame body;
    if (!read_body(call, &body)) {
        return &malformed_packet;
    }
    const client_record* client = find_client(call.client.context_id);
    if (client->pending.size() >= max_pending_requests) {
        return &too_many_pending;
    }
    add_pending_request(call.client.context_id,
                        {call.number(), body.time_position, (body.flags & get_frame_wait) != 0});
    return nullptr;
}

const refusal* give_back_frame(const request_call& call)
{
    release_frame body;
    if (!read_body(call, &body)) {
        return &malformed_packet;
    }
    vexa_client_context* context = context_of(call);
    if (context->get_video_reference(body.reference) == nullptr) {
        return &unknown_reference;
    }
    context->delete_video_reference(body.reference);
    return done(call);
}

const refusal* change_metadata_value(const request_call& call)
{
    set_metadata body;
    if (!read_body(call, &body)) {
        return &malformed_packet;
    }
    const setting_state state = store_client_setting(body.name, body.value);
    if (state == setting_state::REFUSED) {
        return &refused_value;
    }
    if (vexa_on_metadata_set != nullptr) {
        const std::string name(body.name);
        std::string value(body.value);
        vexa_on_metadata_set(&call.client, name.c_str(), value);
    }
    mark_document_changed();
    note_changes(change_metadata);
    answer_setting(call.client, call.number(), body.name, state, call.now_us);
    return nullptr;
}

const refusal* ask_to_exit(const request_call& call)
{
    vexa_should_exit = true;
    return done(call);
}

const refusal* answer_ping(const request_call& call)
{
    ping body;
    if (!read_body(call, &body)) {
        return &malformed_packet;
    }
    send_answer(call.client, {encode_ping(call.number(), PONG, body), {}}, call.now_us);
    return nullptr;
}

struct request_row {
    uint16_t type;
    request_function carry_out;
};

constexpr request_row request_rows[] = {
    {HELLO, say_hello},
    {SET_OUTPUT_SIZE, set_size},
    {GET_STATUS, give_status},
    {SUBSCRIBE, start_subscription},
    {GET_FRAME, ask_for_frame},
    {RELEASE_FRAME, give_back_frame},
    {SET_METADATA, change_metadata_value},
    {EXIT, ask_to_exit},
    {PING, answer_ping},
};

request_function function_for(uint16_t type)
{
    for (const request_row& row : request_rows) {
        if (row.type == type) {
            return row.carry_out;
        }
    }
    return [](const request_call&) { return &unknown_request; };
}

} // namespace

void carry_out_request(comm_socket_v4_client& client, common_pkt_parsing& request,
                       const unsigned char* packet, size_t size, uint64_t now_us)
{
    const request_call call = {client, request, packet, size, now_us};
    const refusal* refused = function_for(request.header.type)(call);
    if (refused != nullptr) {
        send_error(client, call.number(), *refused, now_us);
    }
}

int answer_hello(unsigned long context_id, const comm_socket_v4_packet& request,
                 comm_socket_v4_packet* answer)
{
    packet_header header;
    if (!decode_header(request.bytes.data(), request.bytes.size(), &header)) {
        return -1;
    }
    hello_answer message;
    message.context_id = context_id;
    message.worker_pid = static_cast<uint32_t>(getpid());
    answer->bytes = encode(header.request, message);
    return 0;
}

int take_subscription(comm_socket_v4_client& client, const comm_socket_v4_packet& request)
{
    packet_header header;
    subscribe body;
    if (!decode_header(request.bytes.data(), request.bytes.size(), &header) ||
        !decode(request.bytes.data() + packet_header_size,
                request.bytes.size() - packet_header_size, &body)) {
        return -1;
    }
    client.subscribed = body.mask;
    client.subscription = header.request;
    return 0;
}

} // namespace platform
