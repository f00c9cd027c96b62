// The serving loop, and the clean-up after it.
#include <cstdio>

#include "bin/examine/formats.h"
#include "bin/framebuffer/layout.h"
#include "bin/vexa_stillimage.h"
#include "platform/cnb.h"
#include "platform/document.h"
#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/settings.h"
#include "platform/start_up.h"
#include "platform/status.h"
#include "platform/time.h"
#include "wire/utf8.h"

namespace {

constexpr uint64_t busy_wait_us = 500;        // after a round that did work
constexpr uint64_t extra_idle_wait_us = 9500; // added after a round without any

uint64_t add_saturating(uint64_t a, uint64_t b)
{
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

bool past_auto_shutdown(uint64_t now_us)
{
    if (vexa_no_autoshutdown || mono_auto_shutdown == 0 || now_us < mono_auto_shutdown) {
        return false;
    }
    fprintf(stderr, "Auto terminate: %s\n", wire::escape_controls(vexa_file).c_str());
    return true;
}

// Returns the amount of work done; negative: serving cannot continue.
int serve_clients()
{
    const int comm = idle_vexa_server_comm();
    if (comm < 0) {
        return comm;
    }
    const int contexts = idle_vexa_client_contexts();
    return contexts < 0 ? contexts : comm + contexts;
}

// When both reasons hold, the first one is printed.
bool should_leave()
{
    if (vexa_oneshot) {
        fputs("Oneshot\n", stderr);
        return true;
    }
    if (vexa_should_exit) {
        fputs("Caller requested to exit\n", stderr);
        return true;
    }
    return false;
}

void print_leak_report()
{
    fputs("--------------REMAINING CNB BUFFER ALLOCATIONS----------------\n", stderr);
    fputs("** PLEASE REVIEW FOR DEBUGGING PURPOSES TO CATCH CNB MEMORY LEAKS\n", stderr);
    fputs("============================\n", stderr);
    cnb_alloc_print_remaining_buffers();
    fputs("--------------------------------------------------------------\n", stderr);
}

} // namespace

void announce_ready()
{
    vexa_ready_write(1, "Ready to serve data");
    mono_auto_shutdown = add_saturating(monotonic_clock_us(), auto_shutdown_delay_initial);
}

void serve()
{
    while (DIE4 == 0) {
        const uint64_t now_us = monotonic_clock_us();
        if (past_auto_shutdown(now_us)) {
            break;
        }
        json_check_xmit(now_us);
        const int work = serve_clients();
        if (work < 0) {
            break;
        }
        vexa_global_access_cache_cleanup_idle(vexa_acc_cache);
        vexa_idle_housekeeping();
        if (should_leave()) {
            break;
        }
        const uint64_t wait_us = busy_wait_us + (work == 0 ? extra_idle_wait_us : 0);
        comm_socket_v4_server_from_client_readable(vexa_comm_server, now_us + wait_us);
    }
}

void clean_up()
{
    close_vexa_client_contexts();
    cnb_free(&image_cnb_alloc);
    print_leak_report();
    fputs("Cleaning up\n", stderr);
    fputs("Housekeeping shut down\n", stderr);
    fprintf(stderr, "Freeing cache %p\n", static_cast<void*>(vexa_acc_cache));
    vexa_global_access_cache_cleanup_idle(vexa_acc_cache);
    free_all();
}

void free_all()
{
    free_all_readers();
    cnb_alloc_freeall();
    cnb_default_buffer_drop();
    vexa_free_all();
}
