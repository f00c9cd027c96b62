// Colours of PNG pictures: the conversion of one colour, and the palette of the open file.
#pragma once

#include <png.h>

#include "bin/decode/colour_rows.h"

// yuv[0] = Y 16..235, yuv[1] = U, yuv[2] = V 16..239, by the rule of colour_rules.h.
void png_rgb2yuv(unsigned char r, unsigned char g, unsigned char b, int* yuv);

// The same for an entry of the palette. An index beyond the palette gives black and reads nothing.
void png_pal2yuv(unsigned char index, png_color_struct* palette, int num_palette, int* yuv);

struct png_palette {
    png_colorp colours; // the library's own memory, valid until free_all_png_fileio
    int count;
};

// Gets the palette of the open file. Returns 0, or -1 with a message printed and the reader closed.
// `decoder` is the caller's name, for the invariant that a palette that was found is not null.
int fetch_png_palette(const char* decoder, png_palette* palette);

// Converts the colour of every index: opaque, and black beyond the palette.
void convert_png_palette(const png_palette& palette, packed_yuva colours[256]);

// Both, into palette_colours. Result as fetch_png_palette.
int prepare_png_palette(const char* decoder);
