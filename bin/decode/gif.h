// GIF: every frame is composed and converted into its own unit of the frame buffer.
#pragma once

#include <cstdint>

// Draws every frame of gif_image into the frame buffer, fills image_mapping_points with the frames'
// start times and image_mapping_total with the running time. Returns 0, also when DIE4 ended it
// early. Returns -1 when a frame could not be drawn; the frames before it are in place. The reason
// is printed, except when memory for a frame ran out. When there is no memory for the canvas, the
// picture is closed as well.
int full_decode_gif();

// Where a frame's unit begins: frame x unit size, by definition truncated to 32 bits. A buffer in
// which that makes a difference is never allocated.
uint32_t gif_unit_offset(uint64_t frame, uint64_t unit_size);
