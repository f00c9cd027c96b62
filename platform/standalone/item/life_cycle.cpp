#include "platform/standalone/item/life_cycle.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "platform/media_item.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/item/client_settings.h"
#include "platform/standalone/item/clients.h"
#include "platform/standalone/item/clients_metadata.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/document.h"
#include "platform/standalone/item/item_state.h"
#include "platform/standalone/item/serve_lock.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/item/standard_error.h"
#include "platform/standalone/item/status.h"
#include "platform/standalone/item/switches.h"
#include "platform/time.h"

namespace {

// Reserving gigabytes takes a noticeable part of a second; clients are served meanwhile.
bool serve_while_reserving()
{
    if (idle_vexa_server_comm() >= 0) {
        idle_vexa_client_contexts();
    }
    return DIE4 == 0;
}

} // namespace

// The lowest free number is given, so a descriptor opened here is the missing one. Not
// close-on-exec, as standard descriptors are.
void open_missing_standard_descriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF && open("/dev/null", O_RDWR) == -1) {
            // Without a null device any descriptor keeps the number from being used for a file.
            open("/", O_PATH | O_DIRECTORY);
        }
    }
}

int vexa_join_cnb_domain()
{
    cnb_set_domain(item::own.domain.c_str(), item::own.domain_limit);
    cnb_reserve_pump = serve_while_reserving;
    return cnb_join_domain();
}

void vexa_idle_housekeeping()
{
    item::flush_status();
    item::refresh_serve_lock();
    const uint64_t now_us = monotonic_clock_us();
    item::note_lost_messages(now_us);
    item::store_waiting_settings(now_us);
    answer_waiting_settings(now_us);
}

// The socket goes before the lock under which it was made, the log last of all.
void vexa_free_all()
{
    item::close_status();
    store_client_settings_now();
    close_comm_service();
    item::reset_client_settings();
    cnb_leave_domain();
    item::close_item();
    item::release_serve_lock();
    item::free_setting_texts();
    item::release_standard_error();
}

namespace item {

void reset_item()
{
    reset_client_settings();
    vexa_free_all();
    cnb_set_domain(default_cnb_domain, default_cnb_limit);
    reset_switches();
    reset_settings();
    reset_document();
    reset_status();
}

} // namespace item
