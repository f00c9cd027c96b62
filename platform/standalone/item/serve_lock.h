// The lock under which an item is served: one worker a socket. It is a file beside the socket,
// locked by the kernel for as long as the worker lives, also through daemon(), and gone with it.
// The file holds the worker's number for those who ask; whether it is locked is what counts.
#pragma once

#include <string>

namespace platform {

inline constexpr const char* lock_suffix = ".lock"; // behind the socket's path

// Takes the lock for the socket at this absolute path; waits a moment for a worker that is just
// ending. False after one message that names the socket and the process that serves it, or the lock
// file and the reason.
bool take_serve_lock(const std::string& socket_path);

// The lock is held by this process, or was inherited through daemon(). Only then may the socket be
// made.
bool holds_serve_lock();

// Writes the process's number anew when it has another one, as after daemon().
void refresh_serve_lock();

// Removes the lock file and lets go; a process that has inherited the lock without refreshing it
// lets go of its part only. Does nothing without the lock. Also runs at exit.
void release_serve_lock();

} // namespace platform
