// Signals to processes of a test.
#pragma once

#include <csignal>
#include <sys/types.h>

// False when there is no such process. A process that was never known has the number 0 or -1, which
// kill takes for the test's whole process group, or for all processes.
inline bool send_signal(pid_t pid, int signal)
{
    return pid > 0 && kill(pid, signal) == 0;
}
