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
//
// A coefficient that is coded arithmetically counts more: it is several decisions, and behind the end
// of a scan's data the library goes on making up whole ones, which cost no file at all. Measured in
// processor time with files of 50 to 330 KB that claim 16384 x 16384 pixels, both processors of a
// small virtual machine busy: 2 ns a decision; without data 65 ns a coefficient of 16 bits, and 16 ns
// one that a refinement adds. With these weights such scans use up the allowance in 4 seconds.
inline constexpr uint64_t most_scan_work = UINT64_C(576) * 2048 * 2048;
inline constexpr uint64_t scan_work_a_byte = 384;
inline constexpr uint64_t work_of_visit = 8;
inline constexpr uint64_t arithmetic_weight = 2;
inline constexpr uint64_t arithmetic_weight_without_data = 40;
inline constexpr uint64_t arithmetic_refinement_without_data = 10;
