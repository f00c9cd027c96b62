// Blocks of samples in one row of a plane, as the passes of an interlaced picture draw them.
//
// A row consists of groups of 8, 4 or 2 samples. Each of the `count` samples fills one group: all
// of it, or only its later half while the earlier half stays. Exactly `count` groups are touched;
// row and samples do not overlap. paint_4_of_8 fills the later 4 of 8 samples.
#pragma once

#include <cstddef>

using block_painter = void (*)(unsigned char* row, const unsigned char* samples, size_t count);

void paint_8_of_8(unsigned char* row, const unsigned char* samples, size_t count);
void paint_4_of_8(unsigned char* row, const unsigned char* samples, size_t count);
void paint_4_of_4(unsigned char* row, const unsigned char* samples, size_t count);
void paint_2_of_4(unsigned char* row, const unsigned char* samples, size_t count);
void paint_2_of_2(unsigned char* row, const unsigned char* samples, size_t count);
void paint_1_of_2(unsigned char* row, const unsigned char* samples, size_t count);
