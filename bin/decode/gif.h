// GIF: every frame composed and converted into a unit of its own, and the timeline.
#pragma once

#include <cstdint>

// Draws every frame of gif_image into the frame buffer, fills image_mapping_points with the frames'
// start times and image_mapping_total with the running time. 0, also when DIE4 cut it short. -1
// when a frame could not be done, with the reason printed where there is one: the frames before it
// are in place. Without a canvas the picture is closed as well.
int full_decode_gif();

// Where a frame's unit begins: frame x unit, cut to 32 bits. By definition of the offset; a buffer
// in which that makes a difference is never allocated.
uint32_t gif_unit_offset(uint64_t frame, uint64_t unit_size);
