// TIFF: opens the picture with libtiff, reads the tags that decoding needs, and closes it.
#pragma once

#include <cstdint>

#include <tiffio.h>

extern TIFF* tiff_image; // the open picture, or null; written by this unit

// Tag values and strip geometry. Written by this unit; an optional tag that is absent gives 0. The
// geometry has 32 bits, enough for the report and the checks. Never size memory from it: use the
// library's 64-bit values.
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

// Returns 0 with the picture open and the image state set; 1 with everything closed, after a
// message. When a picture is open already, prints a message, changes nothing and returns 1.
int examine_tiff_file();

// Closes the picture, if open, and zeroes the tag values except size, orientation and ink set. May
// run twice.
void free_all_tiff();

void reset_tiff(); // closes the picture and restores the values at program start
