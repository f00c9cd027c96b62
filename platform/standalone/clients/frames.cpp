// From a frame request to a FRAME packet: the request waits until it can be answered; then a
// reference is created, finds its picture, and stays with the client. No pixel is read.
#include "platform/standalone/clients/frames.h"

#include <exception>
#include <utility>
#include <vector>

#include "platform/run_state.h"
#include "platform/standalone/cnb/default_buffer.h"
#include "platform/standalone/comm/connection.h"
#include "platform/standalone/report/status.h"
#include "platform/time.h"

namespace platform {

using namespace comm_protocol;

namespace {

const refusal too_many_held = {LIMIT, false, "too many frames held"};
const refusal no_reference = {NO_MEMORY, false, "no memory for a frame reference"};
const refusal no_frame = {NO_SUCH_FRAME, false, "no such frame"};
const refusal not_ready = {NOT_READY, false, "the picture is not ready"};
const refusal no_descriptor = {NO_MEMORY, false, "no descriptor for the frame buffer"};
const refusal going_down = {GOING_DOWN, false, "the worker is going down"};
const refusal out_of_memory = {NO_MEMORY, true, "out of memory"};

frame describe(const vexa_video_frame& picture, unsigned long reference_id)
{
    frame message;
    message.reference = reference_id;
    message.flags = ready_state() < 0 ? frame_provisional : 0;
    message.buffer = picture.buffer_number;
    message.base_offset = picture.base_offset;
    message.area_size = picture.area_size;
    message.scanline_offset = picture.scanline_list.offset;
    message.scanline_size = picture.scanline_list.size;
    message.frame_number = picture.frame_number;
    message.width = picture.width;
    message.height = picture.height;
    message.aspect_numerator = picture.aspect_ratio.numerator;
    message.aspect_denominator = picture.aspect_ratio.denominator;
    return message;
}

// Loads and holds the frame. Null, or the refusal for the client.
const refusal* load(vexa_video_frame_reference& reference, held_reference& held,
                    vexa_video_pending_request& request, unsigned long connection_id)
{
    long long error = 0;
    if (reference.examine_request(&request) != 0) {
        return &no_frame;
    }
    reference.frame_index = reference.map_frame(&error);
    held.holds_frame = reference.addref_frame(connection_id, &error) == 0;
    if (held.holds_frame) {
        return nullptr;
    }
    return error == error_not_ready ? &not_ready : &no_frame;
}

// Null when the FRAME was sent.
const refusal* send_frame(comm_socket_v4_client& connection, vexa_video_frame_reference& reference,
                          uint64_t request)
{
    long long error = 0;
    const vexa_video_frame* picture = reference.get_frame(&error);
    if (picture == nullptr) {
        return &no_frame;
    }
    frame message = describe(*picture, reference.reference_id);
    unique_fd descriptor;
    if (!connection.descriptor_sent) {
        descriptor.reset(cnb_open_read_only_descriptor());
        if (!descriptor) {
            return &no_descriptor;
        }
        message.flags |= frame_has_descriptor;
        connection.descriptor_sent = true;
    }
    send_answer(connection, {encode(request, message), std::move(descriptor)},
                monotonic_clock_us());
    return nullptr;
}

const refusal* give_frame(vexa_client_context& context, client_record& client,
                          vexa_video_pending_request& request)
{
    if (!may_hold_another(client)) {
        return &too_many_held;
    }
    vexa_video_frame_reference* reference =
        context.allocate_video_reference(request.time_position, &request);
    if (reference == nullptr) {
        return &no_reference;
    }
    const unsigned long reference_id = reference->reference_id;
    const refusal* refused =
        load(*reference, client.references[reference_id], request, client.connection->id);
    if (refused == nullptr) {
        refused = send_frame(*client.connection, *reference, request.request);
    }
    if (refused != nullptr) {
        context.delete_video_reference(reference_id);
    }
    return refused;
}

// --- waiting ------------------------------------------------------------------------------------

std::vector<unsigned long> unanswered; // contexts with pending requests, each once
bool new_requests = false;             // some of them have not been examined yet

// Answers one client's requests and returns the amount of work done. A client for which memory does
// not suffice is dropped.
int idle_context(const client_context_tracking& tracked)
{
    try {
        return tracked.context->idle();
    } catch (const std::exception&) {
        drop(*tracked.client, 0, out_of_memory);
        return 1;
    }
}

} // namespace

int answer_one_frame_request(vexa_client_context& context, client_record& client)
{
    for (size_t i = 0; i < client.pending.size(); ++i) {
        vexa_video_pending_request request = client.pending[i];
        if (request.wait && !vexa_ready) {
            continue;
        }
        const refusal* refused = give_frame(context, client, request);
        if (refused == &not_ready && request.wait) {
            continue;
        }
        client.pending.erase(client.pending.begin() + static_cast<std::ptrdiff_t>(i));
        if (refused != nullptr) {
            send_error(*client.connection, request.request, *refused, monotonic_clock_us());
        }
        return 1;
    }
    return 0;
}

void add_pending_request(unsigned long context_id, const vexa_video_pending_request& request)
{
    client_record* client = find_client(context_id);
    if (client == nullptr) {
        return;
    }
    if (client->pending.empty()) {
        unanswered.push_back(context_id);
    }
    client->pending.push_back(request);
    new_requests = true;
}

bool pending_requests_are_due()
{
    return !unanswered.empty() && (new_requests || vexa_ready);
}

int answer_pending_requests()
{
    new_requests = false;
    const std::vector<unsigned long> looked_at = std::exchange(unanswered, {});
    int work = 0;
    for (const unsigned long id : looked_at) {
        client_context_tracking* tracked =
            client_context_tracking::get_id(vexa_client_contexts, id);
        if (tracked == nullptr) {
            continue;
        }
        work += idle_context(*tracked);
        const client_record* client = find_client(id);
        if (client != nullptr && !client->pending.empty()) {
            unanswered.push_back(id);
        }
    }
    return work;
}

void refuse_pending_requests(uint64_t now_us)
{
    for (const unsigned long id : std::exchange(unanswered, {})) {
        client_record* client = find_client(id);
        if (client == nullptr) {
            continue;
        }
        for (const vexa_video_pending_request& request : client->pending) {
            send_error(*client->connection, request.request, going_down, now_us);
        }
        client->pending.clear();
    }
}

void reset_pending_requests()
{
    unanswered.clear();
    new_requests = false;
}

} // namespace platform

using namespace platform;

// --- the base classes ----------------------------------------------------------------------------

vexa_video_frame::vexa_video_frame(int /*reserved*/) {}
vexa_video_frame::~vexa_video_frame() = default;

vexa_video_frame_reference::vexa_video_frame_reference() = default;
vexa_video_frame_reference::~vexa_video_frame_reference() = default;

int vexa_video_frame_reference::addref_frame(unsigned long /*connection_id*/, long long* error)
{
    vexa_video_frame* picture = get_frame(error);
    if (picture == nullptr) {
        return -1;
    }
    ++picture->refcount;
    return 0;
}

// Only after a successful addref_frame. Returns the remaining number of holders.
int vexa_video_frame_reference::release_frame()
{
    long long error = 0;
    vexa_video_frame* picture = get_frame(&error);
    return picture != nullptr && picture->refcount > 0 ? --picture->refcount : 0;
}

vexa_video_frame* vexa_video_frame_reference::get_frame(long long* error)
{
    return load_frame(error);
}

vexa_video_frame* vexa_video_frame_reference::load_frame(long long* /*error*/)
{
    return nullptr;
}

unsigned long long vexa_video_frame_reference::map_frame(long long* /*error*/)
{
    return time_position;
}

// A descriptor of the frame's buffer, which the caller closes; -1 when there is no frame.
int vexa_video_frame_reference::load_video_and_return_descriptor(long long* error)
{
    frame_index = map_frame(error);
    return get_frame(error) != nullptr ? cnb_open_read_only_descriptor() : -1;
}

// 0: the request is permitted. Otherwise it is refused as a frame that does not exist.
int vexa_video_frame_reference::examine_request(vexa_video_pending_request* /*request*/)
{
    return 0;
}
