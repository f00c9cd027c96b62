// The data source of the JPEG library. It behaves like the library's own stdio source: the end of
// the file gives a warning and an end-of-image marker.
#pragma once

#include <cstdio>

#include <jpeglib.h>

// Makes `cinfo` read the file behind `fd` from its current position. The descriptor remains the
// caller's; there is one file at a time. When a termination signal stops reading, the library is
// left through the jump for fatal errors if that is armed, else through the jump for stops; with
// neither armed reading continues.
void open_jpeg_source(j_decompress_ptr cinfo, int fd);
