// The listening socket and its file. The caller holds the lock that belongs to the path: only one
// process at a time does this for one path.
#pragma once

#include <string>
#include <sys/types.h>

#include "common/unique_fd.h"

namespace platform {

struct comm_listener {
    unique_fd socket;
    unique_fd folder; // of the socket file
    std::string path;
    std::string name; // in the folder
    dev_t device = 0; // of the socket file
    ino_t inode = 0;
    pid_t owner = 0; // the process that has to remove the file
};

// The temporary name, in the same folder, under which the socket `name` is created. Different names
// have different temporary names.
std::string unfinished_socket_name(const std::string& name);

// True when a socket may be created at the path: nothing is there, or only a socket of this user on
// which nobody listens any more, which is removed. A file left by a process that died while it
// created its socket for this path is removed as well. Otherwise false, after one line that names
// the path.
bool clear_socket_path(const std::string& path);

// Creates the socket under a temporary name with mode 0600, listens, and renames it to `path`,
// replacing an existing socket; so the path never names a socket that refuses connections. False
// with one line on failure; the path is then unchanged.
bool open_listener(const std::string& path, comm_listener* listener);

// Removes the socket file if it is still this listener's and this process is its owner. Closes the
// socket. May run twice.
void close_listener(comm_listener* listener);

} // namespace platform
