#include "bin/decode/png_palette.h"

#include <cstdio>

#include "bin/decode/rgb_to_yuv.h"
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
        if (i < palette.count) {
            const png_color& entry = palette.colours[i];
            const yuv_sample pixel = rgb_to_yuv(entry.red, entry.green, entry.blue);
            colours[i] = {pixel.y, pixel.u, pixel.v, 255};
        } else {
            colours[i] = {16, 128, 128, 255};
        }
    }
}
