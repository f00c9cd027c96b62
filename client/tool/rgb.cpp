#include "client/tool/rgb.h"

rgb_picture to_rgb(const stillimage_picture& picture, bool keep_alpha)
{
    const bool alpha = keep_alpha && picture.plane[STILLIMAGE_A] != nullptr;
    rgb_picture rgb = {picture.width, picture.height, alpha ? 4U : 3U, {}};
    const size_t row_bytes = size_t{rgb.width} * rgb.channels;
    rgb.samples.resize(row_bytes * rgb.height);
    stillimage_picture_to_pixels(&picture, alpha ? STILLIMAGE_RGBA32 : STILLIMAGE_RGB24, rgb.width,
                                 rgb.height, rgb.samples.data(), row_bytes);
    return rgb;
}
