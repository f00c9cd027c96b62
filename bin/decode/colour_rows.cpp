#include "bin/decode/colour_rows.h"

#include "bin/decode/rescale_kernels.h"
#include "bin/decode/rgb_to_yuv.h"

void rgb_to_planes(const unsigned char* rgb, size_t count, unsigned char* y, unsigned char* u,
                   unsigned char* v)
{
    for (size_t i = 0; i < count; ++i) {
        const yuv_sample pixel = rgb_to_yuv(rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]);
        y[i] = pixel.y;
        u[i] = pixel.u;
        v[i] = pixel.v;
    }
}

void rgba_to_planes(const unsigned char* rgba, size_t count, unsigned char* y, unsigned char* u,
                    unsigned char* v, unsigned char* a)
{
    for (size_t i = 0; i < count; ++i) {
        const yuv_sample pixel = rgb_to_yuv(rgba[4 * i], rgba[4 * i + 1], rgba[4 * i + 2]);
        y[i] = pixel.y;
        u[i] = pixel.u;
        v[i] = pixel.v;
        a[i] = rgba[4 * i + 3];
    }
}

void grey_alpha_to_planes(const unsigned char* grey_alpha, size_t count, unsigned char* y,
                          unsigned char* a)
{
    for (size_t i = 0; i < count; ++i) {
        y[i] = rescale_luma_sample(grey_alpha[2 * i]);
        a[i] = grey_alpha[2 * i + 1];
    }
}

void split_yuva(const packed_yuva* pixels, size_t count, unsigned char* y, unsigned char* u,
                unsigned char* v, unsigned char* a)
{
    for (size_t i = 0; i < count; ++i) {
        y[i] = pixels[i].y;
        u[i] = pixels[i].u;
        v[i] = pixels[i].v;
    }
    for (size_t i = 0; a != nullptr && i < count; ++i) {
        a[i] = pixels[i].a;
    }
}
