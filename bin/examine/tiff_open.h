// Opening a file with libtiff, with limits, and reading it.
#pragma once

#include <tiffio.h>

// Takes the descriptor over, also when it fails. The file is read, never mapped, so that one cut by
// others cannot end the process. The library's messages go to standard error, a line each, under
// `name`, which may hold any bytes. Null, with such a message, for a file that the library does not
// take.
TIFF* open_tiff(int fd, const char* name);

// Whether a signal has ended a long read of this picture. What the library has given since means
// nothing, whatever it says; it prints no more.
bool tiff_reading_was_stopped(TIFF* image);
