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
#include "platform/media_item.h"

namespace {

constexpr long buffer_poll_ns = 5'000'000;

// For a process that was to serve, a signal is an orderly end. Who asked only for what is in the file
// must see that there is no answer.
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

// Standard streams that already go to a log stay open in the child.
int keeps_standard_streams()
{
    return isatty(STDIN_FILENO) != 0 || isatty(STDOUT_FILENO) != 0 || isatty(STDERR_FILENO) != 0
               ? 0
               : 1;
}

void daemonize()
{
    fputs("Daemonizing\n", stderr);
    if (daemon(0, keeps_standard_streams()) != 0) {
        fprintf(stderr, "Problem daemon() %s\n", strerror(errno));
    }
    comm_socket_v4_reopen_server(vexa_comm_server);
    fputs("--------------------- ON CLOSURE OF THIS PROCESS (DEBUG) ----------------------\n",
          stderr);
    fd_debug_dump_open_files(stderr);
    refresh_json();
}

// Waits for the domain to have room, serving the socket meanwhile. False when the process is to end
// first.
bool wait_for_buffer()
{
    while (cnb_default_buffer_load() != 0) {
        const bool dead = idle_vexa_server_comm() < 0 || idle_vexa_client_contexts() < 0;
        if (dead || DIE4 != 0) {
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

// go_on, or the exit status. A signal that ends it is an orderly end, with the clean-up still to do.
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

// A decoder may come to its first pump late, or never: who has come by now is greeted before it.
void decode_and_serve()
{
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

int run_stillimage(int argc, char** argv)
{
    open_missing_standard_descriptors();
    ignore_signals_of_writes();
    const int status = start_up(argc, argv);
    return status != go_on ? status : run_sequence();
}
