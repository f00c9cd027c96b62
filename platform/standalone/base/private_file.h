// Files that this user alone may use, at a name that others may have prepared.
#pragma once

#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace platform {

// O_NONBLOCK: opening must not wait when a FIFO has the name of the file.
inline constexpr int private_file_flags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

// Why open() with these flags failed. The system's texts for some of the numbers describe other
// cases.
std::string reason_for_no_private_file(int error_number);

// Why the open file is not this user's alone, or "". With a second name it could be any file that
// this user may write. A file that has just been removed has no reason against it.
const char* reason_against_file(const struct stat& status);

} // namespace platform
