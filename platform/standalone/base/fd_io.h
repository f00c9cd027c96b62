// Reads and writes that continue after a signal or a short transfer.
// They are for files and other blocking descriptors; a non-blocking descriptor that is not ready is
// an error (EAGAIN).
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace platform {

// open / openat with O_CLOEXEC, repeated when a signal interrupts it. -1 with errno on failure.
int open_file(const char* path, int flags, mode_t mode = 0);
int open_file_at(int folder, const char* path, int flags, mode_t mode = 0);

// One transfer, repeated only when a signal interrupts it. Results as those of the system calls.
ssize_t read_some(int fd, void* data, size_t size);
ssize_t pread_some(int fd, void* data, size_t size, uint64_t offset);
ssize_t write_some(int fd, const void* data, size_t size);

// The number of bytes read: `size`, or fewer at the end of the file. -1 with errno on any error,
// even when some bytes had been read.
ssize_t read_fully(int fd, void* data, size_t size);
ssize_t pread_fully(int fd, void* data, size_t size, uint64_t offset);

// 0 when every byte was written, -1 with errno otherwise.
int write_fully(int fd, const void* data, size_t size);
int pwrite_fully(int fd, const void* data, size_t size, uint64_t offset);

} // namespace platform
