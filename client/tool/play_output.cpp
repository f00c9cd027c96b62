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

#include "client/tool/session.h"

namespace {

constexpr uint64_t second = 1'000'000'000; // in nanoseconds

volatile sig_atomic_t stop_asked = 0;

// Before there was a stream to end.
struct sigaction former_interrupt = {};
struct sigaction former_terminate = {};

extern "C" void ask_to_stop(int /*signal*/)
{
    stop_asked = 1;
}

// What is ignored stays ignored: a job in the background is not for Ctrl-C.
void take_over(int signal, struct sigaction* former)
{
    struct sigaction action = {};
    action.sa_handler = ask_to_stop;
    action.sa_flags = static_cast<int>(SA_RESETHAND); // not SA_RESTART: waits have to end
    sigaction(signal, &action, former);
    if (former->sa_handler == SIG_IGN) {
        sigaction(signal, former, nullptr);
    }
}

bool reader_takes_more()
{
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    return poll(&output, 1, 1000) > 0;
}

sending failed_to_write(int error)
{
    if (error == EPIPE) {
        return sending::ENDED;
    }
    tell(std::string("cannot write to standard output: ") + strerror(error));
    return sending::FAILED;
}

} // namespace

stop_signals::stop_signals()
{
    stop_asked = 0;
    take_over(SIGINT, &former_interrupt);
    take_over(SIGTERM, &former_terminate);
}

stop_signals::~stop_signals()
{
    sigaction(SIGINT, &former_interrupt, nullptr);
    sigaction(SIGTERM, &former_terminate, nullptr);
    stop_asked = 0;
}

sending send_piece(std::string_view bytes)
{
    if (stop_asked != 0) {
        return sending::ENDED;
    }
    while (!bytes.empty()) {
        size_t portion = bytes.size();
        if (stop_asked != 0) {
            if (!reader_takes_more()) {
                return sending::ENDED;
            }
            portion = std::min<size_t>(portion, PIPE_BUF); // surely without blocking
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
    return static_cast<uint64_t>(now.tv_sec) * second + static_cast<uint64_t>(now.tv_nsec);
}

void sleep_until(uint64_t moment)
{
    const timespec until = {static_cast<time_t>(moment / second),
                            static_cast<long>(moment % second)};
    while (stop_asked == 0 &&
           clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}
