// Where the JPEG library's bytes come from. To the library it is like its own source of a stdio
// stream: the file's end is a warning and an end-of-image marker.
#pragma once

#include <cstdio>

#include <jpeglib.h>

// Lets `cinfo` read the file behind `fd` from its place on; the descriptor stays the caller's. One
// file at a time. When reading has to end, for a termination signal, the library is left: by the
// jump for fatal errors while that is armed, else by the jump for stops, and not at all with neither.
void open_jpeg_source(j_decompress_ptr cinfo, int fd);
