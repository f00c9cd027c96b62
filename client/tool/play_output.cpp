#include "client/tool/play_output.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <string>
#include <unistd.h>

#include "client/tool/play_schedule.h"
#include "client/tool/session.h"

namespace {

volatile sig_atomic_t stop_requested = 0;

// Restored after the stream.
struct sigaction former_interrupt = {};
struct sigaction former_terminate = {};

extern "C" void request_stop(int /*signal*/)
{
    stop_requested = 1;
}

// An ignored signal stays ignored: Ctrl-C is not meant for a job in the background.
void install_handler(int signal, struct sigaction* former)
{
    struct sigaction action = {};
    action.sa_handler = request_stop;
    action.sa_flags = static_cast<int>(SA_RESETHAND); // no SA_RESTART: it has to interrupt waits
    sigaction(signal, &action, former);
    if (former->sa_handler == SIG_IGN) {
        sigaction(signal, former, nullptr);
    }
}

bool reader_accepts_more()
{
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    return poll(&output, 1, 1000) > 0;
}

sending failed_to_write(int error)
{
    if (error == EPIPE) {
        return sending::ENDED;
    }
    print_error(std::string("cannot write to standard output: ") + strerror(error));
    return sending::FAILED;
}

} // namespace

stop_signals::stop_signals()
{
    stop_requested = 0;
    install_handler(SIGINT, &former_interrupt);
    install_handler(SIGTERM, &former_terminate);
}

stop_signals::~stop_signals()
{
    sigaction(SIGINT, &former_interrupt, nullptr);
    sigaction(SIGTERM, &former_terminate, nullptr);
    stop_requested = 0;
}

sending send_piece(std::string_view bytes)
{
    if (stop_requested != 0) {
        return sending::ENDED;
    }
    while (!bytes.empty()) {
        size_t portion = bytes.size();
        if (stop_requested != 0) {
            if (!reader_accepts_more()) {
                return sending::ENDED;
            }
            portion = std::min<size_t>(portion, PIPE_BUF); // never blocks on a writable pipe
        }
        const ssize_t written = write(STDOUT_FILENO, bytes.data(), portion);
        if (written < 0 && errno != EINTR) {
            return failed_to_write(errno);
        }
        bytes.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    return sending::SENT;
}

uint64_t now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * ns_per_second + static_cast<uint64_t>(now.tv_nsec);
}

void sleep_until(uint64_t moment)
{
    const timespec until = {static_cast<time_t>(moment / ns_per_second),
                            static_cast<long>(moment % ns_per_second)};
    while (stop_requested == 0 &&
           clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}
