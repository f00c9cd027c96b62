// Preloaded into a worker: it stops until SIGCONT at each of its pauses instead of sleeping. With
// --slow-decode there is one pause for each row that is decoded.
#include <csignal>
#include <ctime>

extern "C" int nanosleep(const timespec* /*duration*/, timespec* /*left*/)
{
    raise(SIGSTOP);
    return 0;
}
