// The system calls behind shared memory, as a table, so that a test can substitute one that fails
// on purpose.
#pragma once

#include <cstddef>
#include <sys/types.h>

namespace platform {

// Each member behaves as the system call of its name: -1 (map: MAP_FAILED) with errno on failure.
struct kernel_calls {
    int (*create_memory_file)(const char* name, unsigned flags); // memfd_create
    int (*allocate)(int fd, off_t offset, off_t length);         // fallocate, mode 0
    void* (*map)(size_t length, int fd);                         // shared, readable and writable
    int (*advise)(void* address, size_t length, int advice);     // madvise
    int (*change_mode)(int fd, mode_t mode);                     // fchmod
    int (*add_seals)(int fd, int seals);                         // fcntl
    int (*open_read_only)(const char* path);                     // open
};

extern const kernel_calls system_kernel_calls;

} // namespace platform
