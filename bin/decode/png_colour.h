// One PNG colour to video-range Y, U, V by the rule of rgb_to_yuv.h.
#pragma once

#include <png.h>

// yuv[0] = Y 16..235, yuv[1] = U, yuv[2] = V 16..239.
void png_rgb2yuv(unsigned char r, unsigned char g, unsigned char b, int* yuv);

// The palette's entry; black for an index that it does not have, and it is then not read.
void png_pal2yuv(unsigned char index, png_color_struct* palette, int num_palette, int* yuv);
