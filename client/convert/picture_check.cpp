#include "client/convert/picture_check.h"

#include "client/products.h"

namespace {

bool is_complete(const stillimage_picture& picture, int plane)
{
    if (picture.plane[plane] == nullptr) {
        return true;
    }
    const bool chroma = plane == STILLIMAGE_U || plane == STILLIMAGE_V;
    const uint32_t min_width = chroma ? 1 : picture.width;
    const uint32_t min_height = chroma ? 1 : picture.height;
    return picture.plane_width[plane] >= min_width && picture.plane_height[plane] >= min_height;
}

} // namespace

bool is_extent(uint32_t width, uint32_t height)
{
    return width >= 1 && height >= 1 && width <= max_extent && height <= max_extent;
}

bool can_convert(const stillimage_picture* picture)
{
    constexpr uint8_t max_shift = 2;
    if (picture == nullptr || !is_extent(picture->width, picture->height) ||
        picture->plane[STILLIMAGE_Y] == nullptr || picture->chroma_x_shift > max_shift ||
        picture->chroma_y_shift > max_shift ||
        (picture->plane[STILLIMAGE_U] == nullptr) != (picture->plane[STILLIMAGE_V] == nullptr)) {
        return false;
    }
    for (int plane = 0; plane < STILLIMAGE_PLANES; ++plane) {
        if (!is_complete(*picture, plane)) {
            return false;
        }
    }
    return true;
}

uint32_t channels_of(uint32_t format)
{
    switch (format) {
    case STILLIMAGE_RGB24:
        return 3;
    case STILLIMAGE_RGBA32:
        return 4;
    default:
        return 0;
    }
}

bool holds_pixels(size_t stride, uint32_t channels, uint32_t width, uint32_t height)
{
    constexpr size_t max_object = PTRDIFF_MAX;
    size_t row = 0;
    size_t rows_before_last = 0;
    return multiply(width, channels, &row) && row <= stride && row <= max_object &&
           multiply(height - 1, stride, &rows_before_last) && rows_before_last <= max_object - row;
}
