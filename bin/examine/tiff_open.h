// Opens a file with libtiff, within limits, and reads it for the library.
#pragma once

#include <tiffio.h>

// Takes ownership of the descriptor, also on failure. The file is read, never mapped, so that
// truncation by another process cannot end this one. The library's messages are printed on standard
// error, one line each, with `name`, which may hold any bytes. Null, after such a message, for a
// file that the library does not accept.
TIFF* open_tiff(int fd, const char* name);

// Whether a signal has stopped a long read of this picture. The library's results since then are
// meaningless, and its messages are dropped.
bool tiff_reading_was_stopped(TIFF* image);
