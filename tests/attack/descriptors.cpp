// Open descriptors, and the limits and rights of the process.
#include <cerrno>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/attack/attack.h"

namespace attack {

namespace {

int use_descriptor(const std::string& number)
{
    return outcome(fcntl(std::stoi(number), F_GETFD));
}

// Every open file whose real path is this one. ENOENT: none is open.
int change_mode_of_open_file(const std::string& path)
{
    constexpr int highest = 256;
    struct stat wanted = {};
    if (stat(path.c_str(), &wanted) != 0) {
        return errno;
    }
    int result = ENOENT;
    for (int fd = 0; fd < highest && result != 0; ++fd) {
        struct stat status = {};
        if (fstat(fd, &status) == 0 && status.st_dev == wanted.st_dev &&
            status.st_ino == wanted.st_ino) {
            result = outcome(fchmod(fd, 0));
        }
    }
    return result;
}

// The limit's number is the argument, for instance RLIMIT_CORE.
int raise_limit(const std::string& number)
{
    const auto which = static_cast<__rlimit_resource>(std::stoi(number));
    rlimit limit = {};
    if (getrlimit(which, &limit) != 0) {
        return errno;
    }
    if (limit.rlim_max == RLIM_INFINITY) {
        return 0;
    }
    limit.rlim_max += 1;
    limit.rlim_cur = limit.rlim_max;
    return outcome(setrlimit(which, &limit));
}

int become_dumpable(const std::string& /*argument*/)
{
    return outcome(prctl(PR_SET_DUMPABLE, 1, 0, 0, 0));
}

constexpr attempt attempts[] = {
    {"descriptor", use_descriptor},
    {"change_mode_of_open", change_mode_of_open_file},
    {"raise_limit", raise_limit},
    {"become_dumpable", become_dumpable},
};

} // namespace

std::span<const attempt> descriptor_attempts()
{
    return attempts;
}

} // namespace attack
