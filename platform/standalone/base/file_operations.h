// The system calls that change files, as a table, so that a test can substitute one that fails or
// stops on purpose.
#pragma once

#include <cstddef>
#include <sys/types.h>

namespace platform {

// Each member behaves as the system call of its name: -1 with errno on failure.
struct file_operations {
    int (*open_at)(int folder, const char* name, int flags, mode_t mode);
    ssize_t (*write)(int fd, const void* data, size_t size);
    int (*truncate)(int fd, off_t size);
    int (*change_mode)(int fd, mode_t mode);
    int (*change_owner)(int fd, uid_t user, gid_t group);
    int (*sync)(int fd);
    int (*rename_at)(int folder, const char* from, const char* to);
    // Fails with EEXIST instead of replacing `to`.
    int (*rename_new_at)(int folder, const char* from, const char* to);
    int (*unlink_at)(int folder, const char* name);
};

extern const file_operations system_file_operations;

} // namespace platform
