#include "platform/standalone/report/standard_error.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/settings.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/report/log_file.h"
#include "platform/start_up.h"
#include "platform/time.h"
#include "wire/utf8.h"

namespace platform {

namespace {

constexpr int error_fd = STDERR_FILENO;
constexpr uint64_t patience_us = 1'000'000;

FILE* inherited_stream = nullptr; // stderr as the C library made it
FILE* guarded_stream = nullptr;
uint64_t waited_us = 0;      // for readers, in this process's life
uint64_t lost_bytes = 0;     // not yet reported
bool lost_by_error = false;  // and not because nobody reads
size_t progress_columns = 0; // of the progress line on the screen

// Never destroyed, because messages may be printed after static objects are destroyed.
log_file& the_log()
{
    static auto& log = *new log_file;
    return log;
}

// --- the inherited descriptor -------------------------------------------------------------------

// Waits for room until the patience is used up. True also when the reader has closed its end; the
// write then reports that.
bool wait_for_room()
{
    pollfd waiting = {error_fd, POLLOUT, 0};
    for (;;) {
        const uint64_t left_us = patience_us - std::min(waited_us, patience_us);
        const uint64_t begin = monotonic_clock_us();
        const int ready = poll(&waiting, 1, static_cast<int>(left_us / 1000));
        waited_us += monotonic_clock_us() - begin;
        if (ready != -1 || errno != EINTR) {
            return ready != 0;
        }
    }
}

// A writable pipe accepts PIPE_BUF bytes without blocking. Returns the bytes that are finished, or
// -1 when the text is lost.
ssize_t write_piece(std::string_view piece)
{
    lost_by_error = false;
    if (!wait_for_room()) {
        return -1;
    }
    const ssize_t written = write_some(error_fd, piece.data(), piece.size());
    if (written < 0 && errno == EPIPE) {
        return static_cast<ssize_t>(piece.size()); // nobody is left to read it
    }
    lost_by_error = written < 0 && errno != EAGAIN;
    return written;
}

bool write_pieces(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t done = write_piece(text.substr(0, PIPE_BUF));
        if (done < 0) {
            lost_bytes += text.size();
            return false;
        }
        text.remove_prefix(static_cast<size_t>(done));
    }
    return true;
}

void write_inherited(std::string_view text)
{
    if (lost_bytes > 0) {
        const uint64_t reported = std::exchange(lost_bytes, 0);
        const std::string note = "[" + std::to_string(reported) + " bytes of messages " +
                                 (lost_by_error ? "could not be written" : "were not read") +
                                 " and are lost]\n";
        if (!write_pieces(note)) {
            lost_bytes = reported + text.size();
            return;
        }
    }
    write_pieces(text);
}

// --- the progress line --------------------------------------------------------------------------

// A background job leaves the terminal to the foreground job.
bool may_draw_progress()
{
    if (the_log().is_open() || isatty(error_fd) == 0) {
        return false;
    }
    const pid_t foreground = tcgetpgrp(error_fd);
    return foreground == -1 || foreground == getpgrp();
}

size_t terminal_columns()
{
    winsize size = {};
    const bool known = ioctl(error_fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return known ? size.ws_col : 80;
}

// The longest prefix of `text` with at most `columns` characters; *used is their number.
std::string_view cut_to_columns(std::string_view text, size_t columns, size_t* used)
{
    size_t length = 0;
    for (*used = 0; length < text.size() && *used < columns; ++*used) {
        length += std::max<size_t>(wire::utf8_sequence_length(text.substr(length)), 1);
    }
    return text.substr(0, length);
}

void erase_progress_line()
{
    if (progress_columns > 0) {
        const size_t columns = std::exchange(progress_columns, 0);
        write_inherited('\r' + std::string(columns, ' ') + '\r');
    }
}

// --- the stream ---------------------------------------------------------------------------------

ssize_t write_message(void* /*cookie*/, const char* data, size_t size)
{
    const int kept_errno = errno;
    const std::string_view text(data, size);
    if (the_log().is_open()) {
        the_log().append(text);
    } else {
        erase_progress_line();
        write_inherited(text);
    }
    errno = kept_errno;
    return static_cast<ssize_t>(size);
}

std::string log_heading()
{
    char when[64] = "";
    const time_t now = time(nullptr);
    tm parts = {};
    if (localtime_r(&now, &parts) != nullptr) {
        strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S %z", &parts);
    }
    return "=== stillimage, process " + std::to_string(getpid()) + ", " + when + " ===\n";
}

} // namespace

void guard_standard_error()
{
    if (guarded_stream != nullptr) {
        return;
    }
    const cookie_io_functions_t functions = {nullptr, write_message, nullptr, nullptr};
    FILE* stream = fopencookie(nullptr, "w", functions);
    if (stream == nullptr) {
        return; // unguarded messages are better than none
    }
    setvbuf(stream, nullptr, _IONBF, 0);
    inherited_stream = stderr;
    guarded_stream = stream;
    stderr = stream;
}

void draw_progress_line(std::string_view text)
{
    if (text.empty() || !may_draw_progress()) {
        erase_progress_line();
        return;
    }
    size_t columns = 0;
    const std::string_view shown = cut_to_columns(text, terminal_columns() - 1, &columns);
    const size_t leftover = progress_columns > columns ? progress_columns - columns : 0;
    progress_columns = columns;
    write_inherited('\r' + std::string(shown) + std::string(leftover, ' '));
}

void note_lost_messages(uint64_t now_us)
{
    the_log().look_for_room(now_us);
}

int log_folder()
{
    return the_log().folder();
}

std::vector<std::string> kept_log_files()
{
    return {log_name, old_log_name};
}

void release_standard_error()
{
    erase_progress_line();
    the_log().close();
    waited_us = 0;
    lost_bytes = 0;
    if (guarded_stream != nullptr) {
        stderr = inherited_stream;
        fclose(guarded_stream);
        guarded_stream = nullptr;
    }
}

} // namespace platform

using namespace platform;

int vexa_redirect_stderr_to_logfile()
{
    guard_standard_error();
    draw_progress_line("");
    log_file& log = the_log();
    if (!log.open(vexa_file_metadir) || !log.mirror_on(STDERR_FILENO)) {
        log.close();
        error_line("Log file", std::string(vexa_file_metadir) + "/log", log.reason());
        return -1;
    }
    fputs(log_heading().c_str(), stderr);
    return 0;
}
