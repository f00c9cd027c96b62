// Preloaded into a program: a timer signal interrupts its system calls every millisecond, like that
// of a profiler. Forked children have no timer.
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
