// The full-size planes of the frame buffer, as decoders map, write and blacken them.
#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

#include "bin/decode/colour_rows.h"

enum plane_index : int { PLANE_Y, PLANE_U, PLANE_V, PLANE_A };

inline constexpr int plane_count = 4;

// Sets of planes: bit 1 << PLANE_Y and so on.
inline constexpr unsigned planes_y = 1U << PLANE_Y;
inline constexpr unsigned planes_yuv = planes_y | 1U << PLANE_U | 1U << PLANE_V;
inline constexpr unsigned planes_a = 1U << PLANE_A;

// Where frame 0's plane lies. Addresses of the layout's variables, because the alpha test may drop
// the A plane while an interlaced picture is still being decoded.
struct frame_plane {
    const uint64_t* offset;
    const uint64_t* stride;
    const uint8_t* row_shift; // null: as many rows as luma
    const char* map_failure;  // message
};

extern const frame_plane frame_planes[plane_count];

// Rows of the plane that belong to `luma_rows` rows of luma, rounded down.
uint64_t plane_rows(int plane, uint64_t luma_rows);

// Aborts, in the name of the given decoder, unless the frame buffer is there and its chroma planes
// have full size.
void check_full_size_chroma(const char* decoder);

// --- bands --------------------------------------------------------------------------------------

// Some rows of the planes, mapped for writing. Decoding fills a band from the top.
struct plane_band {
    unsigned char* base[plane_count]; // null for planes that are not mapped
    uint64_t rows;                    // of luma
    uint64_t drawn;                   // luma rows that are done, kept up to date by the decoder
};
static_assert(std::is_trivially_destructible_v<plane_band>); // lives in frames that a jump may skip

struct band_request {
    unsigned planes;         // a set of planes
    uint64_t first_row;      // of luma
    uint64_t rows;           // of luma
    uint32_t unit_start = 0; // of an animation's frame, in bytes; 32 bits since frame offsets wrap
    plane_index named_for_a = PLANE_A; // the plane that the message names when A cannot be mapped
};

// Maps the planes in the order Y, U, V, A. False when a range does not lie inside the buffer: the
// failure is printed and *band stays as it was.
bool map_band(const band_request& request, plane_band* band);

// The band's planes from the given luma row on; null where the band has none.
sample_planes samples_at(const plane_band& band, uint64_t luma_row);

// --- black --------------------------------------------------------------------------------------

using plane_samples = std::array<unsigned char, plane_count>;

inline constexpr plane_samples opaque_black = {16, 128, 128, 255};

// In the plane's own rows and columns: rows `first` to `last` - 1, from `column` to the stride's
// end.
struct plane_area {
    uint64_t first;
    uint64_t last;
    uint64_t column = 0;
};

// Does nothing for a plane that is not mapped.
void blacken_plane(const plane_band& band, int plane, const plane_area& area,
                   const plane_samples& black = opaque_black);

// Blackens all rows of the band below those that are drawn.
void blacken_undrawn(const plane_band& band, const plane_samples& black = opaque_black);
