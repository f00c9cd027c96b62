// Large strips, which one call of libtiff would decode for longer than a signal may wait.
#pragma once

#include <cstdint>

#include <tiffio.h>

// Whether to read `wanted` bytes of a strip with read_large_strip: they take long, and the strips'
// codec gives the same bytes row by row. `keeps_rows` as there.
bool is_large_strip(uint64_t wanted, bool keeps_rows);

// As TIFFReadEncodedStrip with the same bytes, result and messages of the library, but row by row,
// serving clients in between. `to` must be zero. -1 without a message when a signal has asked the
// process to end. Unless the rows are to be kept, which of the bytes are written is left open.
tmsize_t read_large_strip(uint32_t strip, unsigned char* to, uint64_t wanted, bool keeps_rows);
