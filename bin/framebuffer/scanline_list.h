// Scanline list: the record in shared memory that tells other processes where one picture's planes
// are. Byte for byte, with a worked example: docs/scanline-list.md. Offsets:
// wire/scanline_format.h.
#pragma once

#include "bin/framebuffer/layout.h"

// Writes the picture's record into its scanline data area; the rest of the area becomes zero. Frame
// numbers count from 1. A reader that finds the magic's first byte in place finds the whole record.
// -1 when the area cannot be mapped, told on standard error.
int setup_scanline_list(mipmap_image* picture, unsigned long long frame_number);

// The same for callers that carry on regardless: a failure is told once more.
void try_scanline_list(mipmap_image* picture, unsigned long long frame_number);
