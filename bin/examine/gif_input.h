// What giflib reads from: the picture's file through a buffer, since it asks for a few bytes at a
// time. Between two fillings clients are served; after a termination signal the file ends there.
#pragma once

#include <gif_lib.h>

// Opens the picture on `fd`, which this unit takes in any case. Null when that is no GIF. There is
// one at a time.
GifFileType* open_gif(int fd);

// Closes the picture, if any, and the file behind it.
void close_gif(GifFileType* gif);
