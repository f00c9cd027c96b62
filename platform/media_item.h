// The media item: command line, derived paths, status to the host, clients and the status document.
// Everything that the program shares with the platform by name is declared here.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include <json11.hpp>

#include "platform/cnb.h"
#include "platform/comm.h"
#include "platform/metadata.h"
#include "platform/misc.h"

// --- settings: switches, metadata and what is derived from them ---------------------------------

extern char* vexa_file;         // picture to serve; null until a switch names it
extern char* vexa_file_metadir; // folder of the item's metadata
extern char* vexa_sock;         // path of the comm socket
extern char* vexa_file_type;    // type stored in the metadata; null when unknown

extern metadata_v4_context* vexa_meta;
extern metadata_v4_metadata_context* vexa_metadata;

extern bool vexa_auto_socket_create; // the platform creates the comm socket itself
extern bool vexa_oneshot;
extern bool vexa_daemon;
extern bool vexa_identify_only;
extern bool vexa_create_meta;
extern bool vexa_temp_clean_only;
extern bool vexa_no_autoshutdown;
extern bool vexa_stderr_to_log;
extern bool vexa_force_update_metadata;
extern bool vexa_do_write_metadata;    // something in the metadata is new
extern bool vexa_metadata_may_update;  // default true
extern int vexa_background_music;      // 0 off, 1 on
extern int_rational vexa_aspect_ratio; // 0/0: unknown, the picture's own
extern int_rational vexa_time_scale;
extern int64_t vexa_time_duration;
extern int vexa_video_streams;

// --- run state ----------------------------------------------------------------------------------

extern std::atomic<int> DIE4;       // termination signals received
extern bool vexa_should_exit;       // the host or a client asked the process to exit
extern bool vexa_ready;             // frames may be handed out
extern uint64_t mono_auto_shutdown; // monotonic us at which the process ends itself; 0: never
extern uint64_t auto_shutdown_delay_initial; // us from "ready" to the first deadline
extern vexa_global_access_cache* vexa_acc_cache;
extern comm_socket_v4_server* vexa_comm_server; // null until the platform has created the socket
extern bool json_next_xmit_rebuild; // the status document is rebuilt at its next transmission

static_assert(std::atomic<int>::is_always_lock_free, "DIE4 is written by a signal handler");

// --- command line and start-up (0 on success unless said otherwise) -----------------------------

// Opens the null device on each of descriptors 0, 1 and 2 that is closed, so that no later file
// gets such a number and diagnostics are never written into it. The first thing that main does.
void open_missing_standard_descriptors();

int vexa_init_argv(int argc, char** argv);
char* vexa_next_arg();                       // null at the end
int vexa_argv_is_switch(char** argument);    // non-zero: a switch, its dashes stripped
int vexa_argv_std_handle_switch(char* word); // > 0 taken, 0 not a standard switch, < 0 error (told)
void vexa_std_help();                        // the standard switches, on standard error
// Fills paths, vexa_meta, vexa_metadata and settings; makes the comm socket in the modes that serve,
// when vexa_auto_socket_create asks for it.
int vexa_standard_to_derived_params();
int vexa_join_cnb_domain();
int vexa_redirect_stderr_to_logfile();
int vexa_self_test();
void vexa_free_all(); // gives everything of the item back; may run twice

// --- values -------------------------------------------------------------------------------------

// Replaces *variable by a copy of text (null: none) and frees the old text.
void vexa_set_string(char** variable, const char* text);

// Parses "N:D", "N/D" or "N" (N:1) into *ratio, saturating; text that is neither leaves it
// unchanged. 0 when it was a ratio.
int vexa_parse_int_rational(int_rational* ratio, const char* text);

// 1 for on/yes/true/1, 0 for off/no/false/0, any case; anything else is the present setting.
int vexa_parse_background_music(const char* text);

// --- metadata of the item -----------------------------------------------------------------------

void vexa_print_standard_metadata_state(); // on standard error
void vexa_standard_vars_to_metadata(metadata_v4_metadata_context* list);
void meta_to_json(metadata_v4_metadata_context* list); // copies the entries for the status document

// --- status to the host -------------------------------------------------------------------------

// Progress: 0..100 with a text, 100 with an empty text at the end, -1 with a short text for a
// refusal. Never blocks; only changes are written.
void vexa_status_write(int percent, const char* text);

// 1 final, -1 provisional. Sets vexa_ready.
void vexa_ready_write(int state, const char* text);

// --- status document ----------------------------------------------------------------------------

// The id that stands for "no client" when the document is built.
inline constexpr unsigned long no_context_id = ~0UL;

extern void (*vexa_on_json_build)(std::map<std::string, json11::Json>& document,
                                  unsigned long context_id);
extern void (*vexa_on_metadata_set)(comm_socket_v4_client* client, const char* name,
                                    std::string& value);
extern void (*on_vexa_client_disconnect)(comm_socket_v4_client* client);
void my_client_disconnect_handler(comm_socket_v4_client* client);

void item_to_json_common();            // takes the item's own values into the document
void rebuild_json();                   // builds the document anew
void json_check_xmit(uint64_t now_us); // rebuilds when asked for, sends to subscribers what changed

// --- idle work (one round each; amount of work done, negative: fatal) ----------------------------

int idle_vexa_server_comm();     // accepts, receives, sends; without a socket does nothing
int idle_vexa_client_contexts(); // answers pending requests
void close_vexa_client_contexts();
void vexa_idle_housekeeping();

// --- clients ------------------------------------------------------------------------------------

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

// What a client is told about one frame.
class vexa_video_frame {
public:
    explicit vexa_video_frame(int reserved);
    vexa_video_frame(const vexa_video_frame&) = delete;
    vexa_video_frame& operator=(const vexa_video_frame&) = delete;
    virtual ~vexa_video_frame();

    int refcount = 0; // holders; counted by the platform
    uint32_t buffer_number = 0;
    uint64_t base_offset = 0;
    uint64_t area_size = 0; // bytes of the whole frame buffer
    offset_and_size scanline_list = {};
    offset_and_size scanline_area = {}; // the same range, for readers that map it alone
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
    int32_t requested_width = 0;            // output size that the client wants; 0: unknown
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
