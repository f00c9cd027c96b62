#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/attack/attack.h"

namespace attack {

namespace {

int map_private(const std::string& bytes)
{
    const size_t size = std::stoull(bytes);
    void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (address == MAP_FAILED) {
        return errno;
    }
    munmap(address, size);
    return 0;
}

// After the limit has been raised.
int map_beyond_the_limit(const std::string& bytes)
{
    const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_AS, &none);
    return map_private(bytes);
}

int make_memory_file(const std::string& bytes)
{
    const int fd = memfd_create("attack", MFD_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const int result = outcome(fallocate(fd, 0, 0, std::stoll(bytes)));
    close(fd);
    return result;
}

int make_secret_memory(const std::string& /*argument*/)
{
    return outcome(syscall(SYS_memfd_secret, 0));
}

bool is_memory_file(int fd)
{
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    char target[64] = "";
    return readlink(link.c_str(), target, sizeof target - 1) > 0 &&
           std::string(target).starts_with("/memfd:");
}

// Grows a memory file that the worker has open to the size, and shrinks it again. ENOENT: it has
// none.
int grow_memory_file(const std::string& bytes)
{
    constexpr int highest = 256;
    int result = ENOENT;
    for (int fd = 0; fd < highest && result != 0; ++fd) {
        if (is_memory_file(fd)) {
            result = outcome(fallocate(fd, 0, 0, std::stoll(bytes)));
            if (result == 0) {
                result = outcome(ftruncate(fd, 0));
            }
        }
    }
    return result;
}

int make_pipe(const std::string& /*argument*/)
{
    int ends[2];
    return outcome(pipe(ends));
}

constexpr attempt attempts[] = {
    {"private_memory", map_private},        {"raise_address_space", map_beyond_the_limit},
    {"memory_file", make_memory_file},      {"secret_memory", make_secret_memory},
    {"grow_memory_file", grow_memory_file}, {"pipe", make_pipe},
};

} // namespace

std::span<const attempt> memory_attempts()
{
    return attempts;
}

} // namespace attack
