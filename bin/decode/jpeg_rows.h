// The row loop of the JPEG decoders: raw component rows from the library into the frame buffer's
// planes, one row group (the library's smallest unit, usually 8 or 16 luma rows) after the other.
// What differs between the colour models is a row of a table.
#pragma once

#include <cstdint>
#include <type_traits>

// One decoded row group, as the conversion gets it: full-range samples, whole strides, in place.
// Stride padding and rows that the library did not deliver are black (luma 16, chroma 128).
struct jpeg_row_group {
    unsigned char* Y;
    unsigned char* U; // null when the variant has no chroma
    unsigned char* V;
    unsigned char* K;     // null when there is no fourth component
    uint64_t rows;        // luma rows, 1 to 16
    uint64_t chroma_rows; // rows >> image_chroma_y_shift
};
static_assert(std::is_trivially_destructible_v<jpeg_row_group>);

struct jpeg_variant {
    const char* name; // of the decoder, for invariants
    int planes;       // of the frame buffer that it draws: 1 (Y) or 3 (Y, U, V)
    uint64_t band_rows;
    bool asks_die4_again;                         // after the check of the library's row counter
    void (*convert)(const jpeg_row_group& group); // to video range
};

inline constexpr int most_jpeg_group_rows = 16;

// Starts decompression, draws every row group, reports progress. `k_rows` receives the fourth
// component: most_jpeg_group_rows rows of image_stride_Y bytes, zeroed by the caller, used anew for
// each group; null for pictures without one.
//
// -1 when decompression could not be started. 0 otherwise, also when the loop stopped early (the
// reason is printed, none for DIE4); the rest of the band at hand is then black.
int decode_jpeg_rows(const jpeg_variant& variant, unsigned char* k_rows);

// As INVARIANT, in the name of the variant's decoder.
void check_jpeg_invariant(const jpeg_variant& variant, bool condition, const char* text);
