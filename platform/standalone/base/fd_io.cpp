#include "platform/standalone/base/fd_io.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace platform {

namespace {

// Repeats a system call while signals interrupt it.
template <typename call>
auto retried(const call& system_call)
{
    auto result = system_call();
    while (result < 0 && errno == EINTR) {
        result = system_call();
    }
    return result;
}

// Repeats `transfer(done)` until `size` bytes are transferred, the input ends, or an error occurs.
template <typename call>
ssize_t transfer_fully(size_t size, const call& transfer)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t step = transfer(done);
        if (step < 0) {
            return -1;
        }
        if (step == 0) {
            break;
        }
        done += static_cast<size_t>(step);
    }
    return static_cast<ssize_t>(done);
}

// A write that transfers nothing means that the device is full.
int written(ssize_t done, size_t size)
{
    if (done < 0) {
        return -1;
    }
    if (static_cast<size_t>(done) != size) {
        errno = ENOSPC;
        return -1;
    }
    return 0;
}

} // namespace

int open_file(const char* path, int flags, mode_t mode)
{
    return open_file_at(AT_FDCWD, path, flags, mode);
}

int open_file_at(int folder, const char* path, int flags, mode_t mode)
{
    return retried([&] { return openat(folder, path, flags | O_CLOEXEC, mode); });
}

ssize_t read_some(int fd, void* data, size_t size)
{
    return retried([&] { return read(fd, data, size); });
}

ssize_t pread_some(int fd, void* data, size_t size, uint64_t offset)
{
    return retried([&] { return pread(fd, data, size, static_cast<off_t>(offset)); });
}

ssize_t write_some(int fd, const void* data, size_t size)
{
    return retried([&] { return write(fd, data, size); });
}

ssize_t read_fully(int fd, void* data, size_t size)
{
    auto* bytes = static_cast<unsigned char*>(data);
    return transfer_fully(size,
                          [&](size_t done) { return read_some(fd, bytes + done, size - done); });
}

ssize_t pread_fully(int fd, void* data, size_t size, uint64_t offset)
{
    auto* bytes = static_cast<unsigned char*>(data);
    return transfer_fully(size, [&](size_t done) {
        return pread_some(fd, bytes + done, size - done, offset + done);
    });
}

int write_fully(int fd, const void* data, size_t size)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    return written(
        transfer_fully(size,
                       [&](size_t done) { return write_some(fd, bytes + done, size - done); }),
        size);
}

int pwrite_fully(int fd, const void* data, size_t size, uint64_t offset)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    const auto one_write = [&](size_t done) {
        return retried([&] {
            return pwrite(fd, bytes + done, size - done, static_cast<off_t>(offset + done));
        });
    };
    return written(transfer_fully(size, one_write), size);
}

} // namespace platform
