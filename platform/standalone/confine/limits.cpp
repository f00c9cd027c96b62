#include "platform/standalone/confine/limits.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace platform {

namespace {

#ifndef PR_SET_MDWE
constexpr int set_write_execute_rule = 65; // Linux 6.3
constexpr unsigned long refuse_new_code = 1;
#else
constexpr int set_write_execute_rule = PR_SET_MDWE;
constexpr unsigned long refuse_new_code = PR_MDWE_REFUSE_EXEC_GAIN;
#endif

std::vector<int> open_descriptors(DIR* folder)
{
    std::vector<int> found;
    while (const dirent* entry = readdir(folder)) {
        int fd = -1;
        const char* end = entry->d_name + strlen(entry->d_name);
        const auto read = std::from_chars(entry->d_name, end, fd);
        if (read.ec == std::errc() && fd > STDERR_FILENO) {
            found.push_back(fd);
        }
    }
    return found;
}

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
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
    if (!folder) {
        return false;
    }
    for (const int fd : open_descriptors(folder.get())) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0) {
            close(fd);
        }
    }
    return true;
}

} // namespace platform
