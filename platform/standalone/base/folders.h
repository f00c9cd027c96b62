// Folders of the user's own.
#pragma once

#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace platform {

// Creates the folder and its missing parents, each with mode 0700. 0 when the folder exists
// afterwards; -1 with errno otherwise (ENOTDIR when the name belongs to something else).
int make_folders(const char* path);

// The folder, open for reading. Empty with errno on failure.
unique_fd open_folder(const char* path);

// How far an open folder is this user's own.
enum class folder_privacy {
    PRIVATE,  // owned by the user of this process, no rights for others
    READABLE, // others can look into it or use what is in it
    WRITABLE, // others can change it
    FOREIGN,  // owned by another user
    UNKNOWN   // it cannot be examined; errno holds the reason
};
folder_privacy privacy_of(int folder);

// The folder when it is private and not a link. Empty with errno otherwise (EPERM: it belongs to
// another user or is open to others).
unique_fd open_private_folder(const char* path);

// The names in an open folder, "." and ".." included, in any order. Empty when it cannot be listed.
std::vector<std::string> names_in_folder(int folder);

} // namespace platform
