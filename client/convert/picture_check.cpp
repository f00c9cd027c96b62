#include "client/convert/picture_check.h"

namespace {

bool plane_is_whole(const stillimage_picture& picture, int plane)
{
    if (picture.plane[plane] == nullptr) {
        return true;
    }
    const bool chroma = plane == STILLIMAGE_U || plane == STILLIMAGE_V;
    const uint32_t least_width = chroma ? 1 : picture.width;
    const uint32_t least_height = chroma ? 1 : picture.height;
    return picture.plane_width[plane] >= least_width && picture.plane_height[plane] >= least_height;
}

} // namespace

bool is_extent(uint32_t width, uint32_t height)
{
    return width >= 1 && height >= 1 && width <= most_extent && height <= most_extent;
}

bool can_convert(const stillimage_picture* picture)
{
    constexpr uint8_t most_shift = 2;
    if (picture == nullptr || !is_extent(picture->width, picture->height) ||
        picture->plane[STILLIMAGE_Y] == nullptr || picture->chroma_x_shift > most_shift ||
        picture->chroma_y_shift > most_shift ||
        (picture->plane[STILLIMAGE_U] == nullptr) != (picture->plane[STILLIMAGE_V] == nullptr)) {
        return false;
    }
    for (int plane = 0; plane < STILLIMAGE_PLANES; ++plane) {
        if (!plane_is_whole(*picture, plane)) {
            return false;
        }
    }
    return true;
}
