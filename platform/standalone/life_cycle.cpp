#include "platform/standalone/life_cycle.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/settings.h"
#include "platform/standalone/base/freed_memory.h"
#include "platform/standalone/clients/service.h"
#include "platform/standalone/clients/settings.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/item/client_settings.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/serve_lock.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/item/switches.h"
#include "platform/standalone/report/document.h"
#include "platform/standalone/report/run_state.h"
#include "platform/standalone/report/standard_error.h"
#include "platform/standalone/report/status.h"
#include "platform/start_up.h"
#include "platform/time.h"

namespace platform {

namespace {

// Reserving gigabytes takes a noticeable part of a second, so clients are served meanwhile.
bool serve_while_reserving()
{
    if (idle_vexa_server_comm() >= 0) {
        idle_vexa_client_contexts();
    }
    return DIE4 == 0;
}

// Clients may connect while the picture is examined and get what is known of it by then.
int open_service()
{
    if (!mode_serves() || !vexa_auto_socket_create) {
        return 0;
    }
    meta_to_json(vexa_metadata);
    item_to_json_common();
    return open_comm_service() ? 0 : -1;
}

// Removes the socket before the lock that protects it is released.
void give_item_back()
{
    close_comm_service();
    close_item();
    release_serve_lock();
}

} // namespace

void reset_item()
{
    reset_client_settings();
    vexa_free_all();
    cnb_set_domain(default_cnb_domain, default_cnb_limit);
    reset_switches();
    reset_settings();
    reset_run_state();
    reset_document();
    reset_status();
}

} // namespace platform

using namespace platform;

// The kernel assigns the lowest free number, so a descriptor opened here is the missing one. Like
// standard descriptors it is not close-on-exec.
void open_missing_standard_descriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF && open("/dev/null", O_RDWR) == -1) {
            // Without a null device any descriptor will do: it only keeps the number from being
            // used for a file.
            open("/", O_PATH | O_DIRECTORY);
        }
    }
}

int vexa_standard_to_derived_params()
{
    give_item_back();
    set_unstored_source(settings_not_stored);
    if (derive_item() == 0 && open_service() == 0) {
        return 0;
    }
    give_item_back();
    return -1;
}

int vexa_join_cnb_domain()
{
    cnb_set_domain(from_switches.domain.c_str(), from_switches.domain_limit);
    cnb_reserve_pump = serve_while_reserving;
    return cnb_join_domain();
}

void vexa_idle_housekeeping()
{
    flush_status();
    refresh_serve_lock();
    const uint64_t now_us = monotonic_clock_us();
    note_lost_messages(now_us);
    store_waiting_settings(now_us);
    answer_waiting_settings(now_us);
    give_freed_memory_back(now_us);
}

// Removes the socket before the lock that protects it is released; closes the log last.
void vexa_free_all()
{
    close_status();
    store_client_settings_now();
    close_comm_service();
    reset_client_settings();
    cnb_leave_domain();
    close_item();
    release_serve_lock();
    free_setting_texts();
    release_standard_error();
}
