// The comm service of the item: creates the socket, runs a round for each idle call, and releases
// everything at the end.
//
// Idle calls come from the serving loop and from the middle of decoding, between two calls of a
// codec. They throw nothing, and a call from inside a client's callback does nothing.
#include "platform/standalone/clients/service.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <utility>

#include "common/unique_fd.h"
#include "platform/clients.h"
#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/clients/contexts.h"
#include "platform/standalone/clients/documents.h"
#include "platform/standalone/clients/events.h"
#include "platform/standalone/clients/frames.h"
#include "platform/standalone/clients/requests.h"
#include "platform/standalone/clients/settings.h"
#include "platform/standalone/comm/acceptor.h"
#include "platform/standalone/comm/server.h"
#include "platform/standalone/item/client_settings.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/serve_lock.h"
#include "platform/standalone/report/status.h"
#include "platform/time.h"

comm_socket_v4_server* vexa_comm_server = nullptr;
void (*on_vexa_client_disconnect)(comm_socket_v4_client* client) = nullptr;

namespace platform {

namespace {

// Descriptors that a worker needs after it has its socket: the domain, the buffer, the picture's
// reader, a client. With fewer it would serve a picture that nobody can fetch.
constexpr int descriptors_needed = 16;

bool inside_idle = false;

class idle_mark {
public:
    idle_mark() { inside_idle = true; }
    idle_mark(const idle_mark&) = delete;
    idle_mark& operator=(const idle_mark&) = delete;
    ~idle_mark() { inside_idle = false; }
};

void client_left(comm_socket_v4_client& client)
{
    if (on_vexa_client_disconnect != nullptr) {
        on_vexa_client_disconnect(&client);
    }
    forget_client(client);
}

// abort() skips this; the next start recognises the remaining file as stale.
void remove_socket_file_at_exit()
{
    if (vexa_comm_server != nullptr) {
        close_listener(&vexa_comm_server->listener);
    }
}

bool descriptors_are_left(const comm_socket_v4_server& server)
{
    std::array<unique_fd, descriptors_needed> probes;
    for (unique_fd& probe : probes) {
        probe.reset(fcntl(server.epoll.get(), F_DUPFD_CLOEXEC, 0));
        if (!probe) {
            error_line("Comm socket", socket_path(), errno);
            return false;
        }
    }
    return true;
}

std::unique_ptr<comm_socket_v4_server> listening_server()
{
    std::unique_ptr<comm_socket_v4_server> server =
        make_server({carry_out_request, client_left, refresh_serve_lock});
    if (server == nullptr || !start_listening(*server, socket_path())) {
        return nullptr;
    }
    if (!descriptors_are_left(*server)) {
        close_listener(&server->listener);
        return nullptr;
    }
    return server;
}

// The process does not end itself while a client is connected.
void put_off_auto_shutdown(uint64_t now_us)
{
    if (mono_auto_shutdown != 0 && connected_clients() > 0) {
        mono_auto_shutdown =
            std::max(mono_auto_shutdown, saturating_add(now_us, auto_shutdown_delay_initial));
    }
}

int one_round(comm_socket_v4_server& server)
{
    const uint64_t now_us = monotonic_clock_us();
    if (!round_is_due(server, now_us)) {
        return 0;
    }
    int work = begin_document_round(now_us);
    work += run_round(server, now_us);
    // Decoding and waiting for the buffer take long, so settings are also written here: their
    // clients wait for it.
    work += store_waiting_settings(now_us);
    flush_status();
    work += answer_waiting_settings(now_us);
    work += send_changes(server, now_us);
    send_changed_document(server, now_us);
    put_off_auto_shutdown(now_us);
    server.wake_us = next_document_round_us();
    if (work > 0) {
        note_round_time(server, now_us, monotonic_clock_us());
    }
    return work;
}

} // namespace

bool open_comm_service()
{
    static const bool registered = std::atexit(remove_socket_file_at_exit) == 0;
    if (!registered) {
        error_line("Comm socket", socket_path(), ENOMEM);
        return false;
    }
    vexa_comm_server = listening_server().release();
    return vexa_comm_server != nullptr;
}

void close_comm_service()
{
    close_vexa_client_contexts();
    if (vexa_comm_server != nullptr) {
        close_listener(&vexa_comm_server->listener);
    }
    delete std::exchange(vexa_comm_server, nullptr);
    reset_pending_requests();
    reset_client_numbers();
    reset_client_events();
    reset_client_documents();
}

} // namespace platform

using namespace platform;

int idle_vexa_server_comm()
{
    if (inside_idle || vexa_comm_server == nullptr) {
        return 0;
    }
    const idle_mark mark;
    try {
        return one_round(*vexa_comm_server);
    } catch (const std::exception&) {
        return 0; // out of memory in the middle of a round; the next one continues
    }
}

int idle_vexa_client_contexts()
{
    if (inside_idle || !pending_requests_are_due()) {
        return 0;
    }
    const idle_mark mark;
    try {
        return answer_pending_requests();
    } catch (const std::exception&) {
        return 0;
    }
}

void my_client_disconnect_handler(comm_socket_v4_client* client)
{
    if (client != nullptr) {
        forget_client(*client);
    }
}

void close_vexa_client_contexts()
{
    if (vexa_comm_server == nullptr || inside_idle) {
        return;
    }
    const idle_mark mark;
    const uint64_t now_us = monotonic_clock_us();
    finish_waiting_settings(now_us);
    finish_waiting_documents(now_us);
    refuse_pending_requests(now_us);
    send_going_down(*vexa_comm_server, now_us);
    for (const auto& client : vexa_comm_server->clients) {
        leave(*client);
    }
    remove_leaving(*vexa_comm_server);
}
