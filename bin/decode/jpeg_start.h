// Starting the decompression of the JPEG that examination has opened.
#pragma once

#include <cstdint>

// Returns 0 when rows can be read; any later fatal library error ends the process. Returns -1 when
// the library gave up, a termination signal arrived, or the file has more scans than any picture
// needs: the reason is printed and the library object is idle again.
//
// A file with several scans is read to its end here, while the socket and clients are served.
int start_jpeg_decompress();

inline constexpr int max_jpeg_scans = 1000;

// Limit for the work of all scans together, so large pictures may have fewer scans. In each scan,
// every coefficient that the scan covers costs 1, and visiting a block costs work_per_visit. The
// usual ten scans of three components cost 559 for every 8 x 8 pixels. Each byte of the file adds
// scan_work_per_byte to the limit.
//
// An arithmetically coded coefficient costs more: it takes several decisions, and after the end of
// a scan's data the library keeps inventing whole ones, which take no bytes of the file. Measured
// in processor time with files of 50 to 330 KB that claim 16384 x 16384 pixels, both processors of
// a small virtual machine busy: 2 ns a decision; without data 65 ns for a coefficient of 16 bits,
// and 16 ns for one that a refinement adds. With these weights such scans use up the limit in 4
// seconds.
inline constexpr uint64_t max_scan_work = UINT64_C(576) * 2048 * 2048;
inline constexpr uint64_t scan_work_per_byte = 384;
inline constexpr uint64_t work_per_visit = 8;
inline constexpr uint64_t arithmetic_weight = 2;
inline constexpr uint64_t arithmetic_weight_without_data = 40;
inline constexpr uint64_t arithmetic_refinement_without_data = 10;
