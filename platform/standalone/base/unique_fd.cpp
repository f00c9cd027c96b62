#include "platform/standalone/base/unique_fd.h"

#include <cerrno>

namespace platform {

void unique_fd::reset(int fd)
{
    const int old = std::exchange(fd_, fd);
    if (old >= 0 && old != fd) {
        const int kept_errno = errno;
        // Not repeated after EINTR: on Linux the number is free by then and may already be in use
        // elsewhere.
        close(old);
        errno = kept_errno;
    }
}

} // namespace platform
