#include "bin/decode/png_colour.h"

#include "bin/decode/rgb_to_yuv.h"

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
