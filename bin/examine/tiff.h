// TIFF: opening the picture with libtiff, the tags that decoding needs, and the handle's clean-up.
#pragma once

#include <cstdint>

#include <tiffio.h>

extern TIFF* tiff_image; // the open picture, or null; written by this unit

// Tag values and strip geometry. Written by this unit; an optional tag that is absent reads 0. The
// geometry is kept in 32 bits for the report and the refusals: nothing may be sized from it without
// asking the library for the 64-bit value.
extern uint32_t tiff_bps; // bits per sample
extern uint32_t tiff_orientation;
extern uint32_t tiff_spp; // samples per pixel
extern uint32_t tiff_fillorder;
extern uint32_t tiff_photometric;
extern uint32_t tiff_width;
extern uint32_t tiff_height;
extern uint32_t tiff_stripheight; // rows per strip, as the tag says
extern uint32_t tiff_inkset;
extern uint32_t tiff_bytes_per_row;
extern uint32_t tiff_stripsize; // bytes
extern uint32_t tiff_strips;

// 0 with the handle open and the image state set; 1 with everything closed and a message printed.
// When a picture is open already: a message, 1, and nothing touched.
int examine_tiff_file();

// Closes the handle and zeroes the tag values but the size, the orientation and the ink set. May be
// called at any time and twice.
void free_all_tiff();

void reset_tiff(); // closes, and goes back to the values at program start
