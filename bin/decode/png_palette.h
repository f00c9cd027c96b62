// Colours of PNG pictures: the conversion of one colour, and the palette of the open file.
#pragma once

#include <png.h>

// yuv[0] = Y 16..235, yuv[1] = U, yuv[2] = V 16..239, by the rule of colour_rules.h.
void png_rgb2yuv(unsigned char r, unsigned char g, unsigned char b, int* yuv);

// The same for an entry of the palette. An index beyond the palette gives black and reads nothing.
void png_pal2yuv(unsigned char index, png_color_struct* palette, int num_palette, int* yuv);

// Converts the palette of the open file into palette_colours (colour_rows.h): opaque, and black for
// every index beyond the palette. Returns 0, or -1 with a message printed and the reader closed.
// `decoder` is the caller's name, for the invariant that a palette that was found is not null.
int prepare_png_palette(const char* decoder);
