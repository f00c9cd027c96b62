// The picture of an item: opened once, handed out any number of times.
#pragma once

#include <string>

#include "platform/standalone/base/unique_fd.h"

namespace platform {

// Opens a picture without ever waiting for it or taking a terminal. Anything that can be opened for
// reading is taken, since what it is is only looked at when it is handed out. Empty with errno on
// failure.
unique_fd open_picture(const char* path);

// A fresh description, at offset 0, of the file that `fd` refers to. `path` is tried when the
// descriptor folder is missing, and taken only when it still names that file. Empty with errno when
// the file is no regular file, one that the kernel makes up while it is read, or cannot be opened
// again.
unique_fd reopen_picture(int fd, const char* path, const char* descriptor_folder = "/proc/self/fd");

// The path from the root, links as they are, so that a later change of the working folder does not
// matter.
std::string absolute_path(const char* path);

} // namespace platform
