#include "tests/support/scripted_platform.h"

#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/clients.h"
#include "platform/cnb.h"
#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/settings.h"
#include "tests/support/scripted_state.h"

// --- shared variables ---------------------------------------------------------------------------

char* vexa_file = nullptr;
char* vexa_file_metadir = nullptr;
char* vexa_sock = nullptr;
char* vexa_file_type = nullptr;
metadata_v4_context* vexa_meta = nullptr;
metadata_v4_metadata_context* vexa_metadata = nullptr;
bool vexa_auto_socket_create = false;
bool vexa_oneshot = false;
bool vexa_daemon = false;
bool vexa_identify_only = false;
bool vexa_create_meta = false;
bool vexa_temp_clean_only = false;
bool vexa_no_autoshutdown = false;
bool vexa_stderr_to_log = false;
bool vexa_force_update_metadata = false;
bool vexa_do_write_metadata = false;
bool vexa_metadata_may_update = true;
int vexa_background_music = 0;
int_rational vexa_aspect_ratio = {0, 0};
int_rational vexa_time_scale = {1, 1};
int64_t vexa_time_duration = 0;
int vexa_video_streams = 0;
std::atomic<int> DIE4{0};
bool vexa_should_exit = false;
bool vexa_ready = false;
uint64_t mono_auto_shutdown = 0;
uint64_t auto_shutdown_delay_initial = 60'000'000;
vexa_global_access_cache* vexa_acc_cache = nullptr;
comm_socket_v4_server* vexa_comm_server = nullptr;
bool json_next_xmit_rebuild = false;

namespace scripted {

script plan;
record log;

metadata_v4_context the_context = {-1, "picture", "metadata"};
metadata_v4_metadata_context the_list;
uint64_t clock_us = 1'000'000;
int handles_given = 0;

namespace {

void close_picture()
{
    if (the_context.file_fd >= 0) {
        close(the_context.file_fd);
    }
    the_context = {-1, "picture", "metadata"};
}

void reset_settings()
{
    for (char** text : {&vexa_file, &vexa_file_metadir, &vexa_sock, &vexa_file_type}) {
        vexa_set_string(text, nullptr);
    }
    vexa_auto_socket_create = vexa_oneshot = vexa_daemon = vexa_identify_only = false;
    vexa_create_meta = vexa_temp_clean_only = vexa_no_autoshutdown = vexa_stderr_to_log = false;
    vexa_force_update_metadata = vexa_do_write_metadata = false;
    vexa_metadata_may_update = true;
    vexa_background_music = 0;
    vexa_aspect_ratio = {0, 0};
    vexa_time_scale = {1, 1};
    vexa_time_duration = 0;
    vexa_video_streams = 0;
}

void reset_run_state()
{
    DIE4 = 0;
    vexa_should_exit = vexa_ready = json_next_xmit_rebuild = false;
    mono_auto_shutdown = 0;
    auto_shutdown_delay_initial = 60'000'000;
    vexa_acc_cache = nullptr;
    vexa_comm_server = nullptr;
    cnb_default_buffer_level = -1;
    cnb_static_alloc = 0;
    cnb_total = 0;
    cnb_default_buffer_drop();
    vexa_on_json_build = nullptr;
    vexa_on_metadata_set = nullptr;
    on_vexa_client_disconnect = nullptr;
    reset_clients();
}

} // namespace

void reset()
{
    plan = {};
    log = {};
    reset_settings();
    reset_run_state();
    close_picture();
    the_list.entries.clear();
    the_list.closed = false;
    vexa_meta = &the_context;
    vexa_metadata = &the_list;
    vexa_set_string(&vexa_file, "picture");
    clock_us = 1'000'000;
    handles_given = 0;
}

void set_picture_descriptor(int fd)
{
    close_picture();
    the_context.file_fd = fd;
    vexa_meta = &the_context;
    vexa_metadata = &the_list;
}

void set_picture(const void* bytes, size_t size)
{
    const int fd = memfd_create("picture", MFD_CLOEXEC);
    for (size_t done = 0; done < size;) {
        const ssize_t n = write(fd, static_cast<const char*>(bytes) + done, size - done);
        if (n <= 0) {
            abort();
        }
        done += static_cast<size_t>(n);
    }
    set_picture_descriptor(fd);
}

void set_picture(const std::vector<unsigned char>& bytes)
{
    set_picture(bytes.data(), bytes.size());
}

void set_time(uint64_t now_us)
{
    clock_us = now_us;
}

int open_picture_handles()
{
    return handles_given;
}

} // namespace scripted
