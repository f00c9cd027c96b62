// The linker's --wrap redirects each call of NAME to __wrap_NAME; __real_NAME is the original.
#include "tests/support/hooked_calls.h"

#include <cerrno>
#include <cstdarg>
#include <sys/mman.h>
#include <sys/stat.h>
#include <utility>

namespace {

thread_local hooked_calls* hook = nullptr;

// Whether the call is to be made; otherwise errno is set.
bool is_made(int fd, int command = -1, long argument = 0)
{
    const int error = hook != nullptr ? hook->before(fd, command, argument) : 0;
    if (error != 0) {
        errno = error;
    }
    return error == 0;
}

} // namespace

hooked_calls::hooked_calls(std::function<int(const hooked_call&)> action)
    : action_(std::move(action))
{
    hook = this;
}

hooked_calls::~hooked_calls()
{
    hook = nullptr;
}

int hooked_calls::before(int fd, int command, long argument)
{
    if (acting_) {
        return 0;
    }
    acting_ = true;
    const int error = action_({++count_, fd, command, argument});
    acting_ = false;
    return error;
}

extern "C" {

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long); // unspecified for commands that take none
    va_end(arguments);
    return is_made(fd, command, argument) ? __real_fcntl(fd, command, argument) : -1;
}

int __real_fstat(int fd, struct stat* info);
int __wrap_fstat(int fd, struct stat* info)
{
    return is_made(fd) ? __real_fstat(fd, info) : -1;
}

void* __real_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset)
{
    return is_made(fd) ? __real_mmap(address, size, protection, flags, fd, offset) : MAP_FAILED;
}

} // extern "C"
