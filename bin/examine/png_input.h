// The input of libpng: the file without the chunks that are not needed. Texts, profiles and the
// like may have any size and any number, and the library would keep them all. So the chunks between
// the header and the image data that are not needed are skipped, neither read nor checked.
#pragma once

#include <png.h>

// Makes `context` read the file behind `fd` from its start. The descriptor remains the caller's.
// There is one file at a time: this call discards the state of the previous one. The end of the
// file is the library error "Read Error"; when a termination signal stops reading, the library is
// left by a jump, without a message.
void open_png_input(png_structp context, int fd);

bool png_input_was_stopped(); // by a termination signal

// The picture's size according to the file. False when the file was not read that far, or is not a
// PNG. A PNG whose first chunk is not the header has the size 0 until the header is read.
bool png_size_in_file(png_uint_32* width, png_uint_32* height);
