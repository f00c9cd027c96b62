#include "bin/decode/png_palette.h"

#include <cstdio>

#include "bin/decode/png_colour.h"
#include "bin/examine/png.h"
#include "bin/invariant.h"

int fetch_png_palette(const char* decoder, png_palette* palette)
{
    *palette = {nullptr, 256};
    if (png_get_PLTE(png_context, png_context_info, &palette->colours, &palette->count) == 0) {
        fputs("PNG library failed to return color palette\n", stderr);
        free_all_png_fileio();
        return -1;
    }
    if (palette->colours == nullptr) {
        invariant_failed(decoder, "palette != __null");
    }
    return 0;
}

void convert_png_palette(const png_palette& palette, packed_yuva colours[256])
{
    for (int i = 0; i < 256; ++i) {
        int yuv[3] = {};
        png_pal2yuv(static_cast<unsigned char>(i), palette.colours, palette.count, yuv);
        colours[i] = {static_cast<unsigned char>(yuv[0]), static_cast<unsigned char>(yuv[1]),
                      static_cast<unsigned char>(yuv[2]), 255};
    }
}
