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

// What happens to a folder that others can look into or use, but not change.
enum class readable_folder { REFUSED, MADE_PRIVATE };

// Opens the folder `name` of the open folder `parent` (AT_FDCWD: the working folder) for reading,
// when it is private: a real folder, not a link, owned by the user of this process and without
// rights for others. Empty with errno otherwise (EPERM: it belongs to another user or is open to
// others), and with the reason in words in `reason`, if given.
unique_fd open_private_folder(int parent, const char* name, readable_folder readable,
                              std::string* reason = nullptr);

// The names in an open folder, "." and ".." included, in any order. Empty when it cannot be listed.
std::vector<std::string> names_in_folder(int folder);

} // namespace platform
