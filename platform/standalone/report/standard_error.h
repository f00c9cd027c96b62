// Where messages go: standard error as it was inherited, or the item's log. Nobody who reads them,
// or does not, can hold the worker up.
//
// stdio's stderr is replaced by a stream of this unit, so that what the codec libraries print takes
// the same road. For a pipe, socket or terminal whose reader has stopped the worker waits one
// second in its whole life; after that, what cannot be written at once is dropped, and the loss is
// told as soon as there is room again. The log has its own limit (log_file.h).
#pragma once

#include <cstdint>
#include <string_view>

namespace platform {

// Puts the stream into the place of stderr. Further calls do nothing.
void guard_standard_error();

// One line that is redrawn in place, on a terminal only. Messages erase it before they are printed;
// the next call draws it again. Empty text erases it. Printable text, cut to the terminal's width.
void draw_progress_line(std::string_view text);

// Notes in the log what a full disk has kept out of it, when there is room again.
void note_lost_messages(uint64_t now_us);

// Closes the log, erases the progress line, gives stderr back. For the end and for tests; may run
// twice.
void release_standard_error();

} // namespace platform
