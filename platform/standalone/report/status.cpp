#include "platform/standalone/report/status.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/run_state.h"
#include "platform/standalone/report/changes.h"
#include "platform/standalone/report/document.h"
#include "platform/standalone/report/host_channel.h"
#include "platform/standalone/report/notify_socket.h"
#include "platform/standalone/report/standard_error.h"
#include "platform/status.h"
#include "platform/time.h"
#include "wire/protocol.h"
#include "wire/utf8.h"

namespace platform {

namespace {

// A decoder calls this for every row. The last call is stored unchanged, so that a repeated call
// ends after one comparison.
struct last_call {
    int number = 0;
    char text[512] = {};

    bool is(int other, const char* other_text) const
    {
        return number == other && strncmp(text, other_text, sizeof text - 1) == 0;
    }

    void set(int other, const char* other_text)
    {
        number = other;
        strncpy(text, other_text, sizeof text - 1);
    }
};

constexpr size_t max_text = 512;

host_channel host;
notify_socket service_manager;
bool service_manager_known = false; // whether the environment has been read

last_call last_status;
last_call last_ready;
int percent_now = 0;
std::string text_now;
int ready_now = 0;

notify_socket& known_service_manager()
{
    if (!service_manager_known) {
        service_manager_known = true;
        service_manager.open(getenv("NOTIFY_SOCKET"));
    }
    return service_manager;
}

std::string clean_text(const char* text)
{
    return std::string(wire::truncate_utf8(wire::printable(text), max_text));
}

// One line for a person: "40 % Decoding PNG".
std::string progress_line()
{
    return text_now.empty() || percent_now < 0 ? text_now
                                               : std::to_string(percent_now) + " % " + text_now;
}

} // namespace

bool open_status_channel(int fd)
{
    return host.open(fd);
}

bool status_channel_is_file()
{
    return host.is_file();
}

int connect_service_manager()
{
    return known_service_manager().descriptor();
}

void flush_status()
{
    if (host.has_waiting()) {
        host.flush(monotonic_clock_us());
    }
    service_manager.flush();
}

void close_status()
{
    draw_progress_line("");
    if (service_manager.is_open()) {
        service_manager.queue_stopping();
        service_manager.close();
    }
    host.finish();
}

void reset_status()
{
    draw_progress_line("");
    host.close();
    service_manager.close();
    service_manager_known = false;
    last_status = {};
    last_ready = {};
    percent_now = 0;
    text_now.clear();
    ready_now = 0;
}

int progress_percent()
{
    return percent_now;
}

std::string_view progress_text()
{
    return text_now;
}

int ready_state()
{
    return ready_now;
}

} // namespace platform

using namespace platform;

void vexa_status_write(int percent, const char* text)
{
    const char* said = text != nullptr ? text : "";
    if (last_status.is(percent, said)) {
        if (host.has_waiting()) {
            host.flush(monotonic_clock_us());
        }
        return;
    }
    last_status.set(percent, said);
    percent_now = std::clamp(percent, -1, 100);
    text_now = clean_text(said);
    host.report_progress(percent_now, text_now, monotonic_clock_us());
    known_service_manager().queue_status(progress_line());
    draw_progress_line(progress_line());
    mark_document_changed();
    note_changes(comm_protocol::change_progress);
}

void vexa_ready_write(int state, const char* text)
{
    const char* said = text != nullptr ? text : "";
    vexa_ready = true;
    if (last_ready.is(state, said)) {
        flush_status();
        return;
    }
    last_ready.set(state, said);
    ready_now = state < 0 ? -1 : 1;
    text_now = clean_text(said);
    if (ready_now == 1) {
        percent_now = 100;
    }
    host.report_ready(ready_now, text_now, monotonic_clock_us());
    known_service_manager().queue_ready(text_now);
    draw_progress_line("");
    mark_document_changed();
    note_changes(ready_now == 1 ? comm_protocol::change_ready : comm_protocol::change_provisional);
}
