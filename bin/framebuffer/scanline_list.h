// Scanline list: the record in shared memory from which other processes learn where one picture's
// planes are. Byte for byte, with a worked example: docs/scanline-list.md. Offsets:
// wire/scanline_format.h.
#pragma once

#include "bin/framebuffer/layout.h"

// Writes the picture's record into its scanline data area and zeroes the rest of the area. Frame
// numbers count from 1. When a reader sees the magic's first byte, the whole record is there.
// Returns -1, with a message, when the area cannot be mapped.
int setup_scanline_list(mipmap_image* picture, unsigned long long frame_number);

// The same for callers that carry on after a failure, which is reported once more.
void try_scanline_list(mipmap_image* picture, unsigned long long frame_number);
