// The row loop of the JPEG decoders. The library delivers raw component rows, one row group at a
// time (its smallest unit, usually 8 or 16 luma rows), straight into the frame buffer's planes.
// What differs between the colour models is a row of a table.
#pragma once

#include <cstdint>

#include "bin/decode/colour_rows.h"

// Converts one decoded row group to video range, in place: `rows` luma rows (1 to 16) of full-range
// samples, whole strides. Stride padding and rows that the library did not deliver are black (luma
// 16, chroma 128). `k` is null when there is no fourth component.
using row_group_converter = void (*)(const sample_planes& group, unsigned char* k, uint64_t rows);

struct jpeg_variant {
    const char* name; // of the decoder, for invariants
    unsigned planes;  // of the frame buffer, that it draws
    uint64_t band_rows;
    bool polls_die4_twice; // once more after the check of the library's row counter
    row_group_converter convert;
};

inline constexpr int max_jpeg_group_rows = 16;

// Starts decompression, draws every row group and reports progress. `k_rows` receives the fourth
// component: max_jpeg_group_rows rows of image_stride_Y bytes, zeroed by the caller and reused for
// each group. It is null for pictures without a fourth component.
//
// Returns -1 when decompression could not be started. Returns 0 otherwise, also when the loop
// stopped early (the reason is printed, none for DIE4); the rest of the current band is then black.
int decode_jpeg_rows(const jpeg_variant& variant, unsigned char* k_rows);
