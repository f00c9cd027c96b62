// Progress and readiness, reported to everyone who listens: the host's channel, a service manager,
// a terminal, the clients. The contract's calls are vexa_status_write and vexa_ready_write of
// platform/status.h.
#pragma once

#include <string_view>

namespace platform {

// Opens the host's channel for the rest of the run. False with errno when `fd` is not open for
// writing.
bool open_status_channel(int fd);

// Whether the host's channel is a regular file.
bool status_channel_is_file();

// Connects to the service manager, unless that has been done. The descriptor, -1 without a manager.
int connect_service_manager();

// Writes what a slow host or service manager has not accepted yet. Never blocks.
void flush_status();

// The end: informs the service manager that the worker is stopping, erases the progress line, and
// closes the channels. May run twice.
void close_status();

// Resets everything to the values at program start.
void reset_status();

// The status that was written last.
int progress_percent();           // -1 (a refusal) to 100; 0 at program start
std::string_view progress_text(); // valid UTF-8 without control characters, at most 512 bytes
int ready_state();                // 0 not yet, -1 provisional, 1 final

} // namespace platform
