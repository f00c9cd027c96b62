// The linker's --wrap redirects each call of NAME to __wrap_NAME; __real_NAME is the original.
#include "tests/support/held_time.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

thread_local held_time* held = nullptr;

// Ends the test program, which would hang otherwise.
[[noreturn]] void end_endless(const char* what)
{
    fprintf(stderr, "held_time: %s without end\n", what);
    abort();
}

} // namespace

held_time::held_time(std::vector<int> waits_ms) : waits_ms_(std::move(waits_ms))
{
    held = this;
}

held_time::~held_time()
{
    held = nullptr;
}

int held_time::passed_ms() const
{
    return static_cast<int>(passed_ / milliseconds(1));
}

void held_time::count_call()
{
    constexpr int max_calls = 100'000;
    if (++calls_ > max_calls) {
        end_endless("a loop of waits");
    }
}

// The rest of a wait that ends at its time limit is left for the next call.
bool held_time::wait(int timeout_ms)
{
    count_call();
    const bool endless = waits_ms_.empty();
    if (endless && timeout_ms < 0) {
        end_endless("a poll");
    }
    arrived_ = !endless && (timeout_ms < 0 || waits_ms_.front() <= timeout_ms);
    const int waited_ms = arrived_ ? waits_ms_.front() : timeout_ms;
    passed_ += milliseconds(waited_ms);
    if (arrived_) {
        waits_ms_.erase(waits_ms_.begin());
    } else if (!endless) {
        waits_ms_.front() -= waited_ms;
    }
    return arrived_;
}

bool held_time::take_arrival()
{
    return std::exchange(arrived_, false);
}

void held_time::sleep(nanoseconds duration)
{
    passed_ += duration;
    count_call();
    while (!actions_.empty() && actions_.begin()->first <= passed_ms()) {
        actions_.extract(actions_.begin()).mapped()();
    }
}

extern "C" {

int __real_poll(pollfd* fds, nfds_t count, int timeout_ms);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout_ms)
{
    if (held == nullptr || (fds[0].events & POLLIN) == 0) {
        return __real_poll(fds, count, timeout_ms);
    }
    if (!held->wait(timeout_ms)) {
        return 0;
    }
    constexpr int patience_ms = 30'000; // real time to wait for the peer's answer
    const int ready = __real_poll(fds, count, patience_ms);
    if (ready == 0) {
        end_endless("a peer's silence");
    }
    return ready;
}

ssize_t __real_recvmsg(int fd, msghdr* message, int flags);
ssize_t __wrap_recvmsg(int fd, msghdr* message, int flags)
{
    if (held == nullptr || held->take_arrival()) {
        return __real_recvmsg(fd, message, flags);
    }
    errno = EAGAIN;
    return -1;
}

int __real_nanosleep(const timespec* duration, timespec* left);
int __wrap_nanosleep(const timespec* duration, timespec* left)
{
    if (held == nullptr) {
        return __real_nanosleep(duration, left);
    }
    held->sleep(std::chrono::seconds(duration->tv_sec) + nanoseconds(duration->tv_nsec));
    return 0;
}

} // extern "C"

steady_clock::time_point real_now() __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
steady_clock::time_point held_now() __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
steady_clock::time_point held_now()
{
    static const steady_clock::time_point start = real_now();
    return held == nullptr ? real_now() : start + held->passed();
}
