// The base class of client contexts, on top of the platform's records of clients.
//
// Contexts and references are objects of the program: its factories create them, the records here
// own them. A reference is deleted through its context, which first releases its hold on the frame,
// so that the program warns about a frame in use only when somebody else holds it.
#include "platform/standalone/clients/contexts.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "platform/standalone/base/freed_memory.h"
#include "platform/standalone/clients/frames.h"
#include "platform/standalone/clients/requests.h"
#include "platform/standalone/comm/connection.h"
#include "platform/standalone/report/changes.h"
#include "platform/standalone/report/document.h"
#include "platform/time.h"

client_context_table vexa_client_contexts;

namespace platform {

namespace {

std::unordered_map<unsigned long, client_record> records; // by context id
unsigned long last_context_id = 0;
unsigned long last_reference_id = 0;
size_t common_in_use = 0;

void clients_changed()
{
    note_changes(comm_protocol::change_clients);
    set_document_clients(connected_clients());
}

// True when the client holds more than is guaranteed to it.
bool holds_common(const client_record& client)
{
    return client.references.size() > comm_protocol::guaranteed_references;
}

} // namespace

size_t connected_clients()
{
    return vexa_client_contexts.tracked.size();
}

client_record* find_client(unsigned long context_id)
{
    const auto found = records.find(context_id);
    return found != records.end() ? &found->second : nullptr;
}

vexa_client_context* create_context(comm_socket_v4_client& connection)
{
    const unsigned long id = ++last_context_id;
    std::unique_ptr<vexa_client_context> context(vexa_client_contexts.new_client_context != nullptr
                                                     ? vexa_client_contexts.new_client_context(id)
                                                     : new vexa_client_context(id));
    if (context == nullptr) {
        return nullptr;
    }
    records[id].connection = &connection;
    client_context_tracking& tracked = vexa_client_contexts.tracked[id];
    tracked.id = id;
    tracked.client = &connection;
    tracked.context = context.release();
    connection.context_id = id;
    clients_changed();
    return tracked.context;
}

void forget_client(comm_socket_v4_client& connection)
{
    const unsigned long id = std::exchange(connection.context_id, 0UL);
    client_context_tracking* tracked = client_context_tracking::get_id(vexa_client_contexts, id);
    if (tracked == nullptr) {
        return;
    }
    tracked->context->cancel_pending_requests_for_connection(connection.id);
    tracked->context->free_resources();
    delete tracked->context;
    vexa_client_contexts.tracked.erase(id);
    records.erase(id);
    clients_changed();
    note_freed_memory();
}

void reset_client_numbers()
{
    last_context_id = 0;
    last_reference_id = 0;
}

size_t common_references()
{
    return common_in_use;
}

bool may_hold_another(const client_record& client)
{
    const size_t held = client.references.size();
    return held < comm_protocol::guaranteed_references ||
           (held < comm_protocol::max_held_references && common_in_use < max_common_references);
}

} // namespace platform

using namespace platform;

client_context_tracking* client_context_tracking::get_id(client_context_table& table,
                                                         unsigned long id)
{
    const auto found = table.tracked.find(id);
    return found != table.tracked.end() ? &found->second : nullptr;
}

// --- the base class ------------------------------------------------------------------------------

vexa_client_context::vexa_client_context(unsigned long new_id) : id(new_id) {}
vexa_client_context::~vexa_client_context() = default;

int vexa_client_context::idle()
{
    int work = 0;
    while (do_one_video_request() > 0 || do_one_audio_request() > 0) {
        ++work;
    }
    return work;
}

void vexa_client_context::free_resources()
{
    if (client_record* client = find_client(id)) {
        client->pending.clear();
    }
    expire_all_references();
}

// Each request reads the client's settings when it is answered, so nothing needs to be locked in.
void vexa_client_context::lockin_settings() {}

void vexa_client_context::expire_all_references()
{
    expire_old_audio_references(0);
    expire_old_video_references(0);
}

// Stills have no sound, so there are no audio references.
void vexa_client_context::expire_old_audio_references(unsigned long /*age_us*/) {}

void vexa_client_context::expire_old_video_references(unsigned long age_us)
{
    const client_record* client = find_client(id);
    if (client == nullptr) {
        return;
    }
    const uint64_t now_us = monotonic_clock_us();
    std::vector<unsigned long> old;
    for (const auto& [reference_id, held] : client->references) {
        if (now_us - held.since_us >= age_us) {
            old.push_back(reference_id);
        }
    }
    for (const unsigned long reference_id : old) {
        delete_video_reference(reference_id);
    }
}

void vexa_client_context::cancel_pending_requests_for_connection(unsigned long connection_id)
{
    client_record* client = find_client(id);
    if (client != nullptr && client->connection->id == connection_id) {
        client->pending.clear();
    }
}

void vexa_client_context::set_client_context_info(common_pkt_parsing* request)
{
    comm_protocol::set_output_size wanted;
    client_context_tracking* tracked = client_context_tracking::get_id(vexa_client_contexts, id);
    if (tracked == nullptr || !comm_protocol::decode(request->body, request->body_size, &wanted)) {
        return;
    }
    const bool known = wanted.width >= 1 && wanted.height >= 1;
    tracked->requested_width = known ? wanted.width : 0;
    tracked->requested_height = known ? wanted.height : 0;
    lockin_settings();
}

// A still is never late.
void vexa_client_context::check_realtime(unsigned long /*now_us*/) {}

void vexa_client_context::delete_video_reference(unsigned long reference_id)
{
    client_record* client = find_client(id);
    if (client == nullptr) {
        return;
    }
    const auto found = client->references.find(reference_id);
    if (found == client->references.end()) {
        return;
    }
    const held_reference going = std::move(found->second);
    common_in_use -= holds_common(*client) ? 1 : 0;
    client->references.erase(found);
    if (going.holds_frame) {
        going.reference->release_frame();
    }
}

void vexa_client_context::delete_audio_reference(unsigned long /*reference_id*/) {}

vexa_audio_frame_reference*
vexa_client_context::allocate_audio_reference(unsigned long long /*first_sample*/,
                                              unsigned long long /*samples*/)
{
    return nullptr;
}

vexa_video_frame_reference*
vexa_client_context::allocate_video_reference(unsigned long long time_position,
                                              vexa_video_pending_request* /*request*/)
{
    client_record* client = find_client(id);
    if (client == nullptr || vexa_client_contexts.new_video_reference == nullptr) {
        return nullptr;
    }
    std::unique_ptr<vexa_video_frame_reference> reference(
        vexa_client_contexts.new_video_reference(this));
    if (reference == nullptr) {
        return nullptr;
    }
    reference->reference_id = ++last_reference_id;
    reference->context_id = id;
    reference->time_position = time_position;
    held_reference& held = client->references[reference->reference_id];
    held.reference = std::move(reference);
    held.since_us = monotonic_clock_us();
    common_in_use += holds_common(*client) ? 1 : 0;
    return held.reference.get();
}

vexa_audio_frame_reference* vexa_client_context::get_audio_reference(unsigned long /*reference_id*/)
{
    return nullptr;
}

vexa_video_frame_reference* vexa_client_context::get_video_reference(unsigned long reference_id)
{
    client_record* client = find_client(id);
    if (client == nullptr) {
        return nullptr;
    }
    const auto found = client->references.find(reference_id);
    return found != client->references.end() ? found->second.reference.get() : nullptr;
}

// 0: any position may be requested at any time.
int vexa_client_context::realtime_frame_range(unsigned long long& /*first*/,
                                              unsigned long long& /*last*/, long long& /*offset*/,
                                              unsigned long long& /*scale_numerator*/,
                                              unsigned long long& /*scale_denominator*/,
                                              unsigned long long& /*duration*/)
{
    return 0;
}

int vexa_client_context::do_one_audio_request()
{
    return 0;
}

int vexa_client_context::do_one_video_request()
{
    client_record* client = find_client(id);
    return client != nullptr ? answer_one_frame_request(*this, *client) : 0;
}

int vexa_client_context::on_get_context_id(comm_socket_v4_packet* request,
                                           comm_socket_v4_packet* answer)
{
    return answer_hello(id, *request, answer);
}

int vexa_client_context::on_json_cun(comm_socket_v4_packet* request)
{
    client_record* client = find_client(id);
    return client != nullptr ? take_subscription(*client->connection, *request) : -1;
}
