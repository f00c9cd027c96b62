// A PNG file as the library gets to read it. Texts, profiles and the like are of no use here, may
// have any size and any number, and the library would keep them all; so between the header and the
// image data the file is told without the chunks that nobody wants. They are neither read nor
// checked, only passed over.
#pragma once

#include <png.h>

// Lets `context` read the file behind `fd`, from its start; the descriptor stays the caller's. One
// file at a time: what was read before is forgotten. Where the file ends, the library is told
// "Read Error", and where reading has to end, it is left by a jump without a word.
void open_png_input(png_structp context, int fd);

bool png_input_was_stopped(); // reading had to end, for a termination signal

// The picture's size as the file has it. False when the file was not read that far, or is no PNG. A
// PNG that begins with another chunk than its header has the size 0 until the header comes.
bool png_size_in_file(png_uint_32* width, png_uint_32* height);
