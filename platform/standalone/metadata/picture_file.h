// The picture of an item: opened once, handed out any number of times.
#pragma once

#include <string>

#include "common/unique_fd.h"

namespace platform {

// Opens a picture without blocking and without making it the controlling terminal. Any type of file
// is accepted; its type is checked when it is handed out. Empty with errno on failure.
unique_fd open_picture(const char* path);

// A new description, at offset 0, of the file that `fd` refers to. `path` is used when /proc is
// missing, and only if it still names that file. Empty with errno when the file is not a regular
// one, when the kernel generates it while it is read, or when it cannot be reopened.
unique_fd reopen_picture(int fd, const char* path, const char* descriptor_folder = "/proc/self/fd");

// The absolute path, with links unresolved, so that a later change of the working folder has no
// effect.
std::string absolute_path(const char* path);

} // namespace platform
