// Large strips: decoding one in a single call of libtiff would delay a signal for too long.
#pragma once

#include <cstdint>

#include <tiffio.h>

// Whether to read `wanted` bytes of a strip with read_large_strip: decoding takes long, and the
// strip's codec gives the same bytes row by row. `keeps_rows` as there.
bool is_large_strip(uint64_t wanted, bool keeps_rows);

// Gives the same bytes, result and library messages as TIFFReadEncodedStrip, but reads row by row
// and serves clients in between. `to` must be zeroed. Returns -1 without a message when a signal
// has asked the process to end. Without `keeps_rows` any of the bytes may be left unwritten.
tmsize_t read_large_strip(uint32_t strip, unsigned char* to, uint64_t wanted, bool keeps_rows);
