// Standard output as a paced stream that a signal or its reader may end.
#pragma once

#include <cstdint>
#include <string_view>

// While it lives, the first Ctrl-C or SIGTERM asks the stream to end; a second one ends the program.
class stop_signals {
public:
    stop_signals();
    stop_signals(const stop_signals&) = delete;
    stop_signals& operator=(const stop_signals&) = delete;
    ~stop_signals();
};

enum class sending {
    SENT,
    ENDED,  // asked to end, or the reader has what it wanted
    FAILED, // which is told
};

// Writes the piece as a whole. When asked to end it does not begin; in the middle it goes on as long as
// the reader takes something every second.
sending send_piece(std::string_view bytes);

// Of the monotonic clock, in nanoseconds.
uint64_t now_ns();
void sleep_until(uint64_t moment); // or until asked to end
