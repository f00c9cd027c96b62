#include "platform/standalone/report/host_channel.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <utility>

#include <json11.hpp>

#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

constexpr int first_free_number = 3; // never one of the standard descriptors
constexpr uint64_t pause_after_failure_us = 1'000'000;

bool open_for_writing(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) {
        return false;
    }
    const int mode = flags & O_ACCMODE;
    if ((flags & O_PATH) != 0 || (mode != O_WRONLY && mode != O_RDWR)) {
        errno = EBADF;
        return false;
    }
    return true;
}

// True when the reader is gone for good. Other errors may pass: a full disk, a lost file server.
bool means_nobody_is_there(int error_number)
{
    constexpr int errors[] = {EBADF, ECONNREFUSED, ECONNRESET, EDESTADDRREQ, ENOTCONN, EPIPE};
    return std::find(std::begin(errors), std::end(errors), error_number) != std::end(errors);
}

std::string json_line(const char* key, int number, std::string_view text)
{
    const json11::Json line = json11::Json::object{{key, number}, {"text", std::string(text)}};
    return line.dump() + '\n';
}

} // namespace

bool host_channel::open(int fd)
{
    close();
    struct stat status = {};
    if (!open_for_writing(fd) || fstat(fd, &status) != 0) {
        return false;
    }
    fd_.reset(fcntl(fd, F_DUPFD_CLOEXEC, first_free_number));
    if (!fd_) {
        return false;
    }
    if (fd >= first_free_number) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    is_socket_ = S_ISSOCK(status.st_mode);
    is_file_ = S_ISREG(status.st_mode);
    return true;
}

void host_channel::close()
{
    fd_.reset();
    waiting_.clear();
    written_ = 0;
    failed_ = false;
}

void host_channel::finish()
{
    write_waiting(0);
    close();
}

void host_channel::report_progress(int percent, std::string_view text, uint64_t now_us)
{
    queue(json_line("percent", percent, text),
          percent < 0 ? line_kind::REFUSAL : line_kind::PROGRESS, now_us);
}

void host_channel::report_ready(int state, std::string_view text, uint64_t now_us)
{
    queue(json_line("ready", state, text), state < 0 ? line_kind::PROVISIONAL : line_kind::FINAL,
          now_us);
}

// Behind a partly written line at most one line of each kind is queued: the newest.
void host_channel::queue(std::string line, line_kind kind, uint64_t now_us)
{
    if (!is_open()) {
        return;
    }
    const auto first = written_ > 0 ? std::next(waiting_.begin()) : waiting_.begin();
    const auto older = std::find_if(first, waiting_.end(), [kind](const waiting_line& waiting) {
        return waiting.kind == kind;
    });
    if (older != waiting_.end()) {
        waiting_.erase(older);
    }
    waiting_.push_back({std::move(line), kind});
    write_waiting(now_us);
}

void host_channel::flush(uint64_t now_us)
{
    if (!failed_ || now_us >= next_try_us_) {
        write_waiting(now_us);
    }
}

void host_channel::write_waiting(uint64_t now_us)
{
    failed_ = false;
    next_try_us_ = saturating_add(now_us, pause_after_failure_us);
    while (is_open() && !waiting_.empty()) {
        pollfd channel = {fd_.get(), POLLOUT, 0};
        if (poll(&channel, 1, 0) <= 0 || !write_first()) {
            return;
        }
    }
}

// A line is at most PIPE_BUF long, so it is written as a whole to a pipe that is writable. The
// flags of the descriptor belong to the host and are not changed, so each write to a socket asks
// not to block.
bool host_channel::write_first()
{
    const std::string_view rest = std::string_view(waiting_.front().text).substr(written_);
    const ssize_t written =
        is_socket_ ? send(fd_.get(), rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                   : write_some(fd_.get(), rest.data(), rest.size());
    if (written <= 0) {
        return written < 0 && write_failed();
    }
    written_ += static_cast<size_t>(written);
    if (written_ == waiting_.front().text.size()) {
        waiting_.pop_front();
        written_ = 0;
    }
    return true;
}

// Always false. A file on a full disk gets the lines when there is room again.
bool host_channel::write_failed()
{
    if (means_nobody_is_there(errno)) {
        close();
    } else if (errno != EAGAIN && errno != EINTR) {
        failed_ = true;
    }
    return false;
}

} // namespace platform
