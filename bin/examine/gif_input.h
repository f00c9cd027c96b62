// The input of giflib: the picture's file through a buffer, since the library reads a few bytes at
// a time. Clients are served whenever the buffer is refilled; after a termination signal the file
// appears to end there.
#pragma once

#include <gif_lib.h>

// Opens the picture behind `fd` and takes ownership of it, also on failure. Null when the file is
// not a GIF. There is one picture at a time.
GifFileType* open_gif(int fd);

// Closes the picture, if any, and the file behind it.
void close_gif(GifFileType* gif);
