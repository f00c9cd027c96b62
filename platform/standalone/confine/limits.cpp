#include "platform/standalone/confine/limits.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "platform/standalone/base/open_descriptors.h"

namespace platform {

namespace {

#ifndef PR_SET_MDWE
constexpr int set_write_execute_rule = 65; // Linux 6.3
constexpr unsigned long refuse_new_code = 1;
#else
constexpr int set_write_execute_rule = PR_SET_MDWE;
constexpr unsigned long refuse_new_code = PR_MDWE_REFUSE_EXEC_GAIN;
#endif

} // namespace

bool forbid_processes()
{
    const rlimit none = {0, 0};
    return setrlimit(RLIMIT_NPROC, &none) == 0;
}

bool forbid_core_files()
{
    const rlimit none = {0, 0};
    return prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0 && setrlimit(RLIMIT_CORE, &none) == 0;
}

int forbid_new_code()
{
    if (prctl(set_write_execute_rule, refuse_new_code, 0, 0, 0) == 0) {
        return 1;
    }
    return errno == EINVAL ? 0 : -1;
}

// The worker's own descriptors, including the duplicate of the status channel, are close-on-exec.
bool close_inherited_descriptors()
{
    const std::vector<int> descriptors = open_descriptors();
    for (const int fd : descriptors) {
        const int flags = fd > STDERR_FILENO ? fcntl(fd, F_GETFD) : -1;
        if (flags != -1 && (flags & FD_CLOEXEC) == 0) {
            close(fd);
        }
    }
    return !descriptors.empty();
}

} // namespace platform
