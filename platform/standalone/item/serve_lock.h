// The lock under which an item is served: one worker per socket. It is a file beside the socket,
// locked by the kernel as long as the worker lives, also through daemon(), and removed at its end.
// The file contains the worker's process id for information; only the kernel's lock counts.
#pragma once

#include <string>

namespace platform {

inline constexpr const char* lock_suffix = ".lock"; // appended to the socket's path

// Takes the lock for the socket at this absolute path, before the socket is created; waits a moment
// for a worker that is just ending. False after one message that names the socket and the process
// that serves it, or the lock file and the reason.
bool take_serve_lock(const std::string& socket_path);

// The folder and the name of the lock file; -1 without the lock. The folder stays open with it.
struct lock_file_place {
    int folder;
    std::string name;
};
lock_file_place serve_lock_file();

// Updates the process id in the file when it has changed, as after daemon().
void refresh_serve_lock();

// Removes the lock file and releases the lock; a process that has inherited the lock without
// refreshing it only closes its descriptor. Does nothing without the lock. Also runs at exit.
void release_serve_lock();

} // namespace platform
