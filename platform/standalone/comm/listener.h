// The listening socket and its file. The caller holds the lock that goes with the path: one process
// at a time does any of this for one path.
#pragma once

#include <string>
#include <sys/types.h>

#include "platform/standalone/base/unique_fd.h"

namespace platform {

struct comm_listener {
    unique_fd socket;
    std::string path;
    dev_t device = 0; // of the socket file
    ino_t inode = 0;
    pid_t owner = 0; // the process that removes the file
};

// The name, in the same folder, under which the socket `name` is made. Other names have others.
std::string unfinished_socket_name(const std::string& name);

// True when a socket may be made at the path: nothing is there, or a socket of this user that
// nobody listens on any more, which is removed, as is what a process has left that died while it
// made its socket for this path. Otherwise false, told in one line that names the path.
bool clear_socket_path(const std::string& path);

// Makes the socket under another name, mode 0600, listens and renames it to `path`, whatever socket
// is there; so the path never names a socket that refuses. False with one line on failure, the path
// then untouched.
bool open_listener(const std::string& path, comm_listener* listener);

// Removes the socket file when it still is this listener's and this process its owner. Closes the
// socket. May run twice.
void close_listener(comm_listener* listener);

} // namespace platform
