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

// What all scans together may cost, so that large pictures have fewer: a coefficient of a block counts
// 1 in each scan that covers it, a block in each scan work_of_visit more. The usual ten scans of three
// components count 559 for every 8 x 8 pixels. Each byte of the file buys some more.
inline constexpr uint64_t most_scan_work = UINT64_C(576) * 2048 * 2048;
inline constexpr uint64_t scan_work_a_byte = 384;
inline constexpr uint64_t work_of_visit = 8;
