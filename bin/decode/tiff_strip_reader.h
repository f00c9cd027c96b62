// Reads strips of the open TIFF into one buffer, which is reused for each strip.
#pragma once

#include <cstdint>

struct strip_buffer {
    unsigned char* bytes; // from malloc; the owner frees it
    uint64_t size;
    bool keeps_rows; // false: the samples are not used, so they need not all be kept
    uint64_t strip;  // the strip whose requested bytes it holds completely, if any
    uint64_t held;   // bytes from the start that may differ from 0
};

// Allocates zeroed room for `rows` rows, with some spare bytes after them. False when there is no
// memory.
bool allocate_strip_buffer(strip_buffer* buffer, uint64_t rows, bool keeps_rows);

// Reads the first `wanted` bytes of the strip to the start of the buffer; zeros follow them.
// Returns the bytes read: fewer after a message, or without one when a signal has asked the process
// to end. Clients are served while a large strip is read.
uint64_t read_strip(strip_buffer* buffer, uint64_t strip, uint64_t wanted);
