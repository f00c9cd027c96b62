// Starting the decompression of the JPEG that examination has opened.
#pragma once

#include <cstdint>

// 0: rows can be read, and any later fatal library error ends the process. -1: the library gave up,
// a termination signal arrived, or the file has more scans than any picture needs; the reason is
// printed and the library object is back in its idle state.
//
// A file with several scans is read to its end here. Socket and clients are served meanwhile.
int start_jpeg_decompress();

inline constexpr int most_jpeg_scans = 1000;

// Blocks of 8 x 8 samples that all scans together may go over, so that large pictures have fewer
// scans: 15 of every component for the largest one. Each byte of the file buys some more.
inline constexpr uint64_t most_scanned_blocks = UINT64_C(64) << 20;
inline constexpr uint64_t scanned_blocks_a_byte = 16;
