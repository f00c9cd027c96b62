// Folders of the user's own.
#pragma once

#include <string>
#include <vector>

#include "platform/standalone/base/unique_fd.h"

namespace platform {

// Makes the folder and the ones above it that are missing, each with mode 0700. 0 when it is there
// afterwards; -1 with errno otherwise (ENOTDIR when something else has its name).
int make_folders(const char* path);

// The folder, open for reading. Empty with errno on failure.
unique_fd open_folder(const char* path);

// The folder when it is private: not a link, owned by this process's user, no rights for others.
// Empty with errno otherwise (EPERM: it is somebody else's, or open to others).
unique_fd open_private_folder(const char* path);

// The names in an open folder, "." and ".." included, in any order. Empty when it cannot be listed.
std::vector<std::string> names_in_folder(int folder);

} // namespace platform
