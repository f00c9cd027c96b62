// Clients as the program sees them: their contexts, their holds on frames, and the frames.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "platform/comm.h"
#include "platform/misc.h"

class vexa_audio_frame_reference;
class vexa_client_context;
class vexa_video_frame_reference;
struct vexa_video_pending_request;

// load_frame's error code for a picture that is not ready.
inline constexpr long long error_not_ready = 10;

struct offset_and_size {
    uint64_t offset;
    uint64_t size;
};

// Description of one frame for a client.
class vexa_video_frame {
public:
    explicit vexa_video_frame(int reserved);
    vexa_video_frame(const vexa_video_frame&) = delete;
    vexa_video_frame& operator=(const vexa_video_frame&) = delete;
    virtual ~vexa_video_frame();

    int refcount = 0; // maintained by the platform
    uint32_t buffer_number = 0;
    uint64_t base_offset = 0;
    uint64_t area_size = 0; // bytes of the whole frame buffer
    offset_and_size scanline_list = {};
    offset_and_size scanline_area = {}; // the same range, for readers that map only this
    uint64_t frame_number = 0;          // 1 for the first
    int32_t width = 0;                  // full-size picture
    int32_t height = 0;
    int_rational aspect_ratio = {};
    int has_scanline_list = 0;
    int is_video = 0;
};

// A client's hold on one frame. The platform fills the public fields, then calls map_frame and
// get_frame. The order of the virtual functions is interface.
class vexa_video_frame_reference {
public:
    vexa_video_frame_reference();
    vexa_video_frame_reference(const vexa_video_frame_reference&) = delete;
    vexa_video_frame_reference& operator=(const vexa_video_frame_reference&) = delete;
    virtual ~vexa_video_frame_reference();
    virtual int addref_frame(unsigned long connection_id, long long* error);
    virtual int release_frame();
    virtual vexa_video_frame* get_frame(long long* error);
    virtual vexa_video_frame* load_frame(long long* error);
    virtual unsigned long long map_frame(long long* error);
    virtual int load_video_and_return_descriptor(long long* error);
    virtual int examine_request(vexa_video_pending_request* request);

    unsigned long reference_id = 0;
    unsigned long context_id = 0;
    unsigned long long frame_index = 0;   // 0: first frame
    unsigned long long time_position = 0; // in units of the item's time scale
};

// One connected client as the program sees it. The order of the virtual functions is interface.
class vexa_client_context {
public:
    explicit vexa_client_context(unsigned long id);
    vexa_client_context(const vexa_client_context&) = delete;
    vexa_client_context& operator=(const vexa_client_context&) = delete;
    virtual ~vexa_client_context();
    virtual int idle();
    virtual void free_resources();
    virtual void lockin_settings();
    virtual void expire_all_references();
    virtual void expire_old_audio_references(unsigned long age_us);
    virtual void expire_old_video_references(unsigned long age_us);
    virtual void cancel_pending_requests_for_connection(unsigned long connection_id);
    virtual void set_client_context_info(common_pkt_parsing* request);
    virtual void check_realtime(unsigned long now_us);
    virtual void delete_video_reference(unsigned long reference_id);
    virtual void delete_audio_reference(unsigned long reference_id);
    virtual vexa_audio_frame_reference* allocate_audio_reference(unsigned long long first_sample,
                                                                 unsigned long long samples);
    virtual vexa_video_frame_reference*
    allocate_video_reference(unsigned long long time_position, vexa_video_pending_request* request);
    virtual vexa_audio_frame_reference* get_audio_reference(unsigned long reference_id);
    virtual vexa_video_frame_reference* get_video_reference(unsigned long reference_id);
    virtual int realtime_frame_range(unsigned long long& first, unsigned long long& last,
                                     long long& offset, unsigned long long& scale_numerator,
                                     unsigned long long& scale_denominator,
                                     unsigned long long& duration);
    virtual int do_one_audio_request();
    virtual int do_one_video_request();
    virtual int on_get_context_id(comm_socket_v4_packet* request, comm_socket_v4_packet* answer);
    virtual int on_json_cun(comm_socket_v4_packet* request);

    unsigned long id;
    int32_t picture_width = 0;
    int32_t picture_height = 0;
    uint64_t duration = 0; // in units of the item's time scale
};

struct client_context_table;

// The platform's record of one client.
struct client_context_tracking {
    unsigned long id = 0;
    comm_socket_v4_client* client = nullptr;
    vexa_client_context* context = nullptr; // owned by the table
    int32_t requested_width = 0;            // output size that the client asks for; 0: unknown
    int32_t requested_height = 0;

    // The record of client context `id`, or null.
    static client_context_tracking* get_id(client_context_table& table, unsigned long id);
};

using client_context_factory = vexa_client_context* (*)(unsigned long id);
using audio_reference_factory = vexa_audio_frame_reference* (*)(vexa_client_context* owner);
using video_reference_factory = vexa_video_frame_reference* (*)(vexa_client_context* owner);

struct client_context_table {
    client_context_factory new_client_context = nullptr;   // slot 0
    audio_reference_factory new_audio_reference = nullptr; // slot 1, unused for stills
    video_reference_factory new_video_reference = nullptr; // slot 2
    std::map<unsigned long, client_context_tracking> tracked;
};

extern client_context_table vexa_client_contexts;

// --- hooks of the program; null: none -----------------------------------------------------------

// A client set the metadata entry `name`; the hook may change the value.
extern void (*vexa_on_metadata_set)(comm_socket_v4_client* client, const char* name,
                                    std::string& value);
extern void (*on_vexa_client_disconnect)(comm_socket_v4_client* client);

// The platform's own handler of a disconnect, for on_vexa_client_disconnect.
void my_client_disconnect_handler(comm_socket_v4_client* client);
