// With y = (Y - 16) / 219 and u, v = (U - 128, V - 128) / 224 (ITU-R BT.601):
//     R = y + 1.402 v,  G = y - 0.344136 u - 0.714136 v,  B = y + 1.772 u
// in 16.16 fixed point, scaled to 0..255.
#include "client/tool/rgb.h"

#include <algorithm>

namespace {

constexpr int half = 1 << 15;
constexpr int luma_factor = 76309; // 255 / 219
constexpr int v_to_red = 104597;   // 1.402 * 255 / 224
constexpr int u_to_green = 25675;  // 0.344136 * 255 / 224
constexpr int v_to_green = 53279;  // 0.714136 * 255 / 224
constexpr int u_to_blue = 132201;  // 1.772 * 255 / 224

uint8_t to_byte(int fixed)
{
    return static_cast<uint8_t>(std::clamp((fixed + half) >> 16, 0, 255));
}

void convert_pixel(int Y, int U, int V, uint8_t* rgb)
{
    const int y = (Y - 16) * luma_factor;
    const int u = U - 128;
    const int v = V - 128;
    rgb[0] = to_byte(y + v * v_to_red);
    rgb[1] = to_byte(y - u * u_to_green - v * v_to_green);
    rgb[2] = to_byte(y + u * u_to_blue);
}

const uint8_t* row_of(const stillimage_picture& picture, int plane, uint32_t row)
{
    if (picture.plane[plane] == nullptr) {
        return nullptr;
    }
    const uint32_t last = picture.plane_height[plane] - 1;
    return picture.plane[plane] + uint64_t{std::min(row, last)} * picture.stride[plane];
}

void convert_row(const stillimage_picture& picture, uint32_t row, uint32_t channels, uint8_t* out)
{
    const uint32_t chroma_row = row >> picture.chroma_y_shift;
    const uint8_t* Y = row_of(picture, STILLIMAGE_Y, row);
    const uint8_t* U = row_of(picture, STILLIMAGE_U, chroma_row);
    const uint8_t* V = row_of(picture, STILLIMAGE_V, chroma_row);
    const uint8_t* A = row_of(picture, STILLIMAGE_A, row);
    const uint32_t chroma_width =
        std::min(picture.plane_width[STILLIMAGE_U], picture.plane_width[STILLIMAGE_V]);
    const uint32_t last_column = chroma_width > 0 ? chroma_width - 1 : 0;
    for (uint32_t x = 0; x < picture.width; ++x, out += channels) {
        const uint32_t column = std::min(x >> picture.chroma_x_shift, last_column);
        convert_pixel(Y[x], U == nullptr ? 128 : U[column], V == nullptr ? 128 : V[column], out);
        if (channels == 4) {
            out[3] = A[x];
        }
    }
}

} // namespace

rgb_picture to_rgb(const stillimage_picture& picture, bool keep_alpha)
{
    rgb_picture rgb;
    rgb.width = picture.width;
    rgb.height = picture.height;
    rgb.channels = keep_alpha && picture.plane[STILLIMAGE_A] != nullptr ? 4 : 3;
    const uint64_t row_bytes = uint64_t{rgb.width} * rgb.channels;
    rgb.samples.resize(row_bytes * rgb.height);
    for (uint32_t row = 0; row < rgb.height; ++row) {
        convert_row(picture, row, rgb.channels, rgb.samples.data() + row * row_bytes);
    }
    return rgb;
}
