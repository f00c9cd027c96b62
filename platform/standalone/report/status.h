// Progress and readiness, told wherever somebody listens: the host's channel, a service manager, a
// terminal, the clients. The calls are vexa_status_write and vexa_ready_write of
// platform/media_item.h.
#pragma once

#include <string_view>

namespace platform {

// The host's channel for the rest of the run. False with errno when `fd` is not open for writing.
bool open_status_channel(int fd);

// Writes what a slow host or service manager has not taken yet. Never blocks.
void flush_status();

// The end: tells a service manager that the worker stops, erases the progress line, lets the
// channels go. May run twice.
void close_status();

// Everything as at program start.
void reset_status();

// What was written last.
int progress_percent();           // -1 (a refusal) to 100; 0 at program start
std::string_view progress_text(); // valid UTF-8 without control characters, at most 512 bytes
int ready_state();                // 0 not yet, -1 provisional, 1 final

} // namespace platform
