// From interleaved pixels to planes, a run of pixels at a time. Any count, any alignment; exactly
// `count` pixels are read and `count` samples a plane are written. Source and planes do not overlap.
// All versions give the bytes of rgb_to_yuv.h and rescale.h.
#pragma once

#include <cstddef>

struct packed_yuva {
    unsigned char y, u, v, a;
};
static_assert(sizeof(packed_yuva) == 4);

// R, G, B of 8 bits each to video range.
void rgb_to_planes(const unsigned char* rgb, size_t count, unsigned char* y, unsigned char* u,
                   unsigned char* v);

// R, G, B, A; alpha is copied, colour is not multiplied by it.
void rgba_to_planes(const unsigned char* rgba, size_t count, unsigned char* y, unsigned char* u,
                    unsigned char* v, unsigned char* a);

// Full-range grey and alpha: grey to video range, alpha copied.
void grey_alpha_to_planes(const unsigned char* grey_alpha, size_t count, unsigned char* y,
                          unsigned char* a);

// Converted pixels, taken apart. `a` may be null: alpha is then left out.
void split_yuva(const packed_yuva* pixels, size_t count, unsigned char* y, unsigned char* u,
                unsigned char* v, unsigned char* a);
