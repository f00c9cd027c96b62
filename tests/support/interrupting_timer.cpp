// Loaded into a program before it starts: a timer signal that interrupts its system calls every
// millisecond, as a profiler's would. A child that goes on alone has no timer.
#include <csignal>
#include <sys/time.h>

namespace {

void do_nothing(int /*signal*/) {}

__attribute__((constructor)) void start_timer()
{
    struct sigaction action = {};
    action.sa_handler = do_nothing; // without SA_RESTART
    sigaction(SIGALRM, &action, nullptr);
    const itimerval every_millisecond = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &every_millisecond, nullptr);
}

} // namespace
