// The palette of the open PNG.
#pragma once

#include <png.h>

#include "bin/decode/colour_rows.h"

struct png_palette {
    png_colorp colours; // the library's own memory: valid until free_all_png_fileio
    int count;
};

// 0 with the palette; -1 with a message printed and the reader closed. `decoder` is the caller's
// name, for the invariant that a palette that was found is there.
int fetch_png_palette(const char* decoder, png_palette* palette);

// Every index's colour in video range, opaque. Indices that the palette does not have are black.
void convert_png_palette(const png_palette& palette, packed_yuva colours[256]);
