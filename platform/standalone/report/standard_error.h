// Where messages go: standard error as it was inherited, or the item's log. No reader, slow or
// absent, can block the worker.
//
// stdio's stderr is replaced by a stream of this unit, so that messages of the codec libraries take
// the same way. If the reader of a pipe, socket or terminal has stopped, the worker waits for it
// one second in its whole life; after that, messages that cannot be written at once are dropped,
// and the loss is reported as soon as there is room again. The log has its own limit (log_file.h).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Replaces stderr by that stream. Further calls do nothing.
void guard_standard_error();

// Draws a line that is updated in place, on a terminal only. Messages erase it before they are
// printed; the next call draws it again. Empty text erases it. The text is printable and is
// truncated to the terminal's width.
void draw_progress_line(std::string_view text);

// Records in the log what was lost while the disk was full, when there is room again.
void note_lost_messages(uint64_t now_us);

// The descriptor of the log's folder, -1 without a log, and the files that are renamed in it.
int log_folder();
std::vector<std::string> kept_log_files();

// Closes the log, erases the progress line and restores stderr. For the end and for tests; may run
// twice.
void release_standard_error();

} // namespace platform
