// Standard output as a paced stream that a signal or its reader can end.
#pragma once

#include <cstdint>
#include <string_view>

// During its life, the first Ctrl-C or SIGTERM requests the end of the stream; a second one
// terminates the program.
class stop_signals {
public:
    stop_signals();
    stop_signals(const stop_signals&) = delete;
    stop_signals& operator=(const stop_signals&) = delete;
    ~stop_signals();
};

enum class sending {
    SENT,
    ENDED,  // a signal requested it, or the reader closed the pipe
    FAILED, // an error message has been printed
};

// Writes the whole piece. After a request to end, a new piece is not begun; one that is half
// written is completed as long as the reader accepts some bytes every second.
sending send_piece(std::string_view bytes);

// Both in nanoseconds of the monotonic clock.
uint64_t now_ns();
void sleep_until(uint64_t moment); // returns early when the end is requested
