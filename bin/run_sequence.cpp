// The run sequence: examine, lay out, allocate, decode, build the pyramid, serve.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "bin/examine/examine_file.h"
#include "bin/examine/image_state.h"
#include "bin/examine/write_back.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/framebuffer/records.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "bin/serve/client_context.h"
#include "bin/vexa_stillimage.h"
#include "platform/cnb.h"
#include "platform/confinement.h"
#include "platform/document.h"
#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/settings.h"

namespace {

constexpr long buffer_poll_ns = 5'000'000;

// A signal is an orderly end for a process that was started to serve. A process that was started
// only to identify the file has failed: its caller has no result.
int leave_without_examination()
{
    free_all();
    const bool serves = !vexa_identify_only && !vexa_create_meta;
    return serves && DIE4 != 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int create_cache()
{
    vexa_acc_cache = vexa_global_access_cache_create();
    if (vexa_acc_cache == nullptr) {
        fputs("Cannot create cache\n", stderr);
        free_all();
        return EXIT_FAILURE;
    }
    return go_on;
}

void daemonize()
{
    fputs("Daemonizing\n", stderr);
    const bool has_terminal =
        isatty(STDIN_FILENO) != 0 || isatty(STDOUT_FILENO) != 0 || isatty(STDERR_FILENO) != 0;
    // Standard streams that already go to a log stay open in the child.
    if (daemon(0, has_terminal ? 0 : 1) != 0) {
        fprintf(stderr, "Problem daemon() %s\n", strerror(errno));
    }
    confine_daemon();
    comm_socket_v4_reopen_server(vexa_comm_server);
    fputs("--------------------- ON CLOSURE OF THIS PROCESS (DEBUG) ----------------------\n",
          stderr);
    fd_debug_dump_open_files(stderr);
    refresh_json();
}

// Waits until the domain has room, and serves the socket meanwhile. False when the process has to
// end before that.
bool wait_for_buffer()
{
    while (cnb_default_buffer_load() != 0) {
        const bool failed = idle_vexa_server_comm() < 0 || idle_vexa_client_contexts() < 0;
        if (failed || DIE4 != 0) {
            return false;
        }
        if (vexa_should_exit) {
            fputs("Caller requested to exit\n", stderr);
            return false;
        }
        const timespec pause = {0, buffer_poll_ns};
        nanosleep(&pause, nullptr);
    }
    return true;
}

// Returns go_on or the exit status. EXIT_SUCCESS: a signal ended the allocation; the clean-up is
// still to be done.
int allocate_frame_buffer()
{
    fprintf(stderr, "Using CNB buffer %u [sz=%lu unit=%lu frames=%lu]\n", image_cnb_buffer,
            image_decoded_size, image_decoded_unit_size, image_decoded_frames);
    INVARIANT(image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    if (!cnb_malloc(&image_cnb_alloc, image_decoded_size, "Image")) {
        if (DIE4 != 0) {
            return EXIT_SUCCESS;
        }
        fputs("CNB allocation failed\n", stderr);
        return EXIT_FAILURE;
    }
    return build_picture_records() == 0 ? go_on : EXIT_FAILURE;
}

void decode_and_serve()
{
    // A decoder may serve the socket late, or never: greet the clients that have connected by now.
    quickidle_comm();
    decode_picture();
    if (DIE4 == 0 && mipmaps_avail == 0) {
        generate_all_mipmaps();
    }
    print_final_layout();
    announce_ready();
    refresh_json();
    serve();
}

} // namespace

void refresh_json()
{
    if (!json_next_xmit_rebuild) {
        rebuild_json();
    }
}

int run_sequence()
{
    if (examine_file() != 0) {
        return leave_without_examination();
    }
    print_examination_result();
    write_metadata_back();
    if (vexa_identify_only || vexa_create_meta) {
        free_all();
        return EXIT_SUCCESS;
    }
    update_client_contexts();
    item_to_json_common();
    refresh_json();
    if (create_cache() != go_on) {
        return EXIT_FAILURE;
    }
    layout_full_size();
    if (vexa_daemon) {
        daemonize();
    }
    layout_mipmaps();
    if (wait_for_buffer()) {
        const int status = allocate_frame_buffer();
        if (status == EXIT_FAILURE) {
            return EXIT_FAILURE;
        }
        if (status == go_on) {
            decode_and_serve();
        }
    }
    clean_up();
    return EXIT_SUCCESS;
}
