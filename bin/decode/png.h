// PNG pictures without interlacing, one decoder for each colour type.
#pragma once

// All need an examined PNG and an allocated frame buffer. They return 0, also when only a part of
// the picture could be drawn, and -1, with the reader closed, when the decoder could not start.
int full_decode_png_rgb();
int full_decode_png_rgba();
int full_decode_png_grayscale();       // any depth, scaled to 8 bits
int full_decode_png_grayscale_alpha(); // draws Y and A; there is no chroma
int full_decode_png_palette();         // a transparency chunk is ignored: no alpha
