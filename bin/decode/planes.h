// The full-size planes of the frame buffer as decoders see them.
#pragma once

#include <cstdint>

// Addresses of the layout's variables, since the alpha test may drop the A plane in mid-decode.
struct frame_plane {
    const uint64_t* offset;
    const uint64_t* stride;
    const uint8_t* row_shift; // null: as many rows as luma
    unsigned char black;
    const char* map_failure;
};

enum frame_plane_index : int { PLANE_Y, PLANE_U, PLANE_V, PLANE_A };

extern const frame_plane frame_planes[4];

// Rows of the plane beside `luma_rows` rows of luma, rounded down.
uint64_t plane_rows(const frame_plane& plane, uint64_t luma_rows);

// A writable pointer to the plane's part of `luma_rows` rows of luma from `luma_row` on, `unit` bytes
// behind frame 0's (32 bits, since frame offsets wrap there). Null, with the failure printed, when
// the range is not inside the buffer.
unsigned char* map_plane_rows(const frame_plane& plane, uint64_t luma_row, uint64_t luma_rows,
                              uint32_t unit = 0);
