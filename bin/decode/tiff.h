// TIFF pictures into the frame buffer's planes, one decoder a colour model. Samples of 8 bits are
// drawn, for grayscale those of 1 bit, too; pictures of other depths are read and stay black.
#pragma once

// All need an examined TIFF and an allocated frame buffer. 0, also when the picture could be drawn
// only in part; -1, with a message, when decoding could not be started.
int full_decode_tiff_rgb();
int full_decode_tiff_grayscale();
int full_decode_tiff_cmyk();
int full_decode_tiff_palette();

// As those, but says itself that decoding failed.
void full_decode_tiff_ycbcr();
