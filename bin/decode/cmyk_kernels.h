// Applying K to the samples of YCCK and CMYK pictures, over runs of samples. Products of two
// samples are divided by 255, truncating toward zero.
#pragma once

#include <cstddef>

// samples[i] = (255 - samples[i]) * k[i] / 255
void invert_and_darken_luma(unsigned char* samples, const unsigned char* k, size_t count);

// With c = 255 - samples[i]: samples[i] = 128 + (c - 128) * k[i] / 255
void invert_and_darken_chroma(unsigned char* samples, const unsigned char* k, size_t count);

// samples[i] = 255 - samples[i]
void invert(unsigned char* samples, size_t count);

// Replaces c, m and y, which together with k are shares of white, by Y, U and V.
void cmyk_to_yuv(unsigned char* c, unsigned char* m, unsigned char* y, const unsigned char* k,
                 size_t count);
