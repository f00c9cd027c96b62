// Strips of the open TIFF into one buffer that is used again for each of them.
#pragma once

#include <cstdint>

struct strip_buffer {
    unsigned char* bytes; // malloc'ed; the owner frees it
    uint64_t size;
    bool keeps_rows; // false: nobody looks at the samples, so that they need not all be kept
    uint64_t strip;  // whose first bytes it holds, all that were asked for; or none
    uint64_t held;   // bytes that may differ from 0, from the start
};

// Room for so many rows, zero, and zero behind them. False when there is no memory for it.
bool allocate_strip_buffer(strip_buffer* buffer, uint64_t rows, bool keeps_rows);

// The first `wanted` bytes of the strip to the start of the buffer, zeroes behind them. Bytes read:
// fewer after a message, or without one when a signal asked the process to end. In a large strip
// clients are served in between.
uint64_t read_strip(strip_buffer* buffer, uint64_t strip, uint64_t wanted);
