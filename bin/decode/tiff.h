// TIFF pictures into the frame buffer's planes, one decoder for each colour model. Samples of 8
// bits are drawn, for grayscale also samples of 1 bit. Pictures of other depths are read and stay
// black.
#pragma once

// All need an examined TIFF and an allocated frame buffer. They return 0, also when only a part of
// the picture could be drawn, and -1, with a message, when decoding could not be started.
int full_decode_tiff_rgb();
int full_decode_tiff_grayscale();
int full_decode_tiff_cmyk();
int full_decode_tiff_palette();

// As the others, but prints the failure of the decoder itself.
void full_decode_tiff_ycbcr();
