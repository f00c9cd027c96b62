// From full range to video range, in place.
//   luma    y' = y * 219 / 255 + 16                 0 .. 255 to 16 .. 235
//   chroma  c' = 128 + (c - 128) * 224 / 255        0 .. 255 to 16 .. 239
// Divisions truncate toward zero: three chroma values give 128, and the largest is 239, not 240.
#pragma once

#include <cstddef>

// `count` must not be 0.
void jpeg_rescale_luma_to_16_235(unsigned char* p, size_t count);
void jpeg_rescale_chroma_to_16_240(unsigned char* p, size_t count);
