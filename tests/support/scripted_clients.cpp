// Minimal base classes of clients and frames, enough for the program's derived classes.
#include "platform/clients.h"
#include "tests/support/scripted_state.h"

client_context_table vexa_client_contexts;

namespace scripted {

void reset_clients()
{
    vexa_client_contexts = {};
}

} // namespace scripted

client_context_tracking* client_context_tracking::get_id(client_context_table& table,
                                                         unsigned long id)
{
    const auto found = table.tracked.find(id);
    return found != table.tracked.end() ? &found->second : nullptr;
}

vexa_video_frame::vexa_video_frame(int /*reserved*/) {}
vexa_video_frame::~vexa_video_frame() = default;

vexa_video_frame_reference::vexa_video_frame_reference() = default;
vexa_video_frame_reference::~vexa_video_frame_reference() = default;

int vexa_video_frame_reference::addref_frame(unsigned long /*connection_id*/, long long* error)
{
    vexa_video_frame* frame = get_frame(error);
    if (frame == nullptr) {
        return -1;
    }
    ++frame->refcount;
    return 0;
}

int vexa_video_frame_reference::release_frame()
{
    return 0;
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
    return 0;
}

int vexa_video_frame_reference::load_video_and_return_descriptor(long long* error)
{
    return get_frame(error) != nullptr ? 0 : -1;
}

int vexa_video_frame_reference::examine_request(vexa_video_pending_request* /*request*/)
{
    return 0;
}

vexa_client_context::vexa_client_context(unsigned long new_id) : id(new_id) {}
vexa_client_context::~vexa_client_context() = default;

int vexa_client_context::idle()
{
    return 0;
}

void vexa_client_context::free_resources() {}
void vexa_client_context::lockin_settings() {}
void vexa_client_context::expire_all_references() {}
void vexa_client_context::expire_old_audio_references(unsigned long /*age_us*/) {}
void vexa_client_context::expire_old_video_references(unsigned long /*age_us*/) {}
void vexa_client_context::cancel_pending_requests_for_connection(unsigned long /*connection_id*/) {}
void vexa_client_context::set_client_context_info(common_pkt_parsing* /*request*/) {}
void vexa_client_context::check_realtime(unsigned long /*now_us*/) {}
void vexa_client_context::delete_video_reference(unsigned long /*reference_id*/) {}
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
    if (vexa_client_contexts.new_video_reference == nullptr) {
        return nullptr;
    }
    vexa_video_frame_reference* reference = vexa_client_contexts.new_video_reference(this);
    reference->context_id = id;
    reference->time_position = time_position;
    return reference;
}

vexa_audio_frame_reference* vexa_client_context::get_audio_reference(unsigned long /*reference_id*/)
{
    return nullptr;
}

vexa_video_frame_reference* vexa_client_context::get_video_reference(unsigned long /*reference_id*/)
{
    return nullptr;
}

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
    return 0;
}

int vexa_client_context::on_get_context_id(comm_socket_v4_packet* /*request*/,
                                           comm_socket_v4_packet* /*answer*/)
{
    return 0;
}

int vexa_client_context::on_json_cun(comm_socket_v4_packet* /*request*/)
{
    return 0;
}
