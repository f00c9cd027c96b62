#include "bin/decode/png_palette.h"

#include <cstdio>

#include "bin/decode/colour_rows.h"
#include "bin/decode/colour_rules.h"
#include "bin/examine/png.h"
#include "bin/invariant.h"

void png_rgb2yuv(unsigned char r, unsigned char g, unsigned char b, int* yuv)
{
    const yuv_sample pixel = rgb_to_yuv(r, g, b);
    yuv[0] = pixel.y;
    yuv[1] = pixel.u;
    yuv[2] = pixel.v;
}

void png_pal2yuv(unsigned char index, png_color_struct* palette, int num_palette, int* yuv)
{
    if (index >= num_palette) {
        png_rgb2yuv(0, 0, 0, yuv);
        return;
    }
    const png_color_struct& colour = palette[index];
    png_rgb2yuv(colour.red, colour.green, colour.blue, yuv);
}

int prepare_png_palette(const char* decoder)
{
    png_colorp palette = nullptr; // the library's own memory
    int size = 256;
    if (png_get_PLTE(png_context, png_context_info, &palette, &size) == 0) {
        fputs("PNG library failed to return color palette\n", stderr);
        free_all_png_fileio();
        return -1;
    }
    check_invariant(decoder, palette != nullptr, "palette != __null");
    for (int i = 0; i < 256; ++i) {
        int yuv[3] = {};
        png_pal2yuv(static_cast<unsigned char>(i), palette, size, yuv);
        palette_colours[i] = {static_cast<unsigned char>(yuv[0]),
                              static_cast<unsigned char>(yuv[1]),
                              static_cast<unsigned char>(yuv[2]), 255};
    }
    return 0;
}
