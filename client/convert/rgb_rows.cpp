// With y = (Y - 16) / 219 and u, v = (U - 128, V - 128) / 224 (ITU-R BT.601):
//     R = y + 1.402 v,  G = y - 0.344136 u - 0.714136 v,  B = y + 1.772 u
// in 16.16 fixed point, scaled to 0..255. The loops run over whole rows and are simple enough for
// the compiler to vectorize.
#include "client/convert/rgb_rows.h"

#include <algorithm>

#include "common/for_each_processor.h"

namespace {

constexpr int half = 1 << 15;
constexpr int luma_factor = 76309; // 255 / 219
constexpr int v_to_red = 104597;   // 1.402 * 255 / 224
constexpr int u_to_green = 25675;  // 0.344136 * 255 / 224
constexpr int v_to_green = 53279;  // 0.714136 * 255 / 224
constexpr int u_to_blue = 132201;  // 1.772 * 255 / 224

constexpr uint8_t no_colour = 128;
constexpr uint8_t opaque = 255;

uint8_t to_byte(int fixed)
{
    return static_cast<uint8_t>(std::clamp((fixed + half) >> 16, 0, 255));
}

FOR_EACH_PROCESSOR
void convert_row(const uint8_t* Y, const uint8_t* U, const uint8_t* V, size_t width,
                 uint8_t* __restrict red, uint8_t* __restrict green, uint8_t* __restrict blue)
{
    for (size_t x = 0; x < width; ++x) {
        const int y = (Y[x] - 16) * luma_factor;
        const int u = U[x] - 128;
        const int v = V[x] - 128;
        red[x] = to_byte(y + v * v_to_red);
        green[x] = to_byte(y - u * u_to_green - v * v_to_green);
        blue[x] = to_byte(y + u * u_to_blue);
    }
}

FOR_EACH_PROCESSOR
void put_rgb(const uint8_t* red, const uint8_t* green, const uint8_t* blue, size_t width,
             uint8_t* __restrict to)
{
    for (size_t x = 0; x < width; ++x) {
        to[3 * x] = red[x];
        to[3 * x + 1] = green[x];
        to[3 * x + 2] = blue[x];
    }
}

FOR_EACH_PROCESSOR
void put_rgba(const uint8_t* red, const uint8_t* green, const uint8_t* blue, const uint8_t* alpha,
              size_t width, uint8_t* __restrict to)
{
    for (size_t x = 0; x < width; ++x) {
        to[4 * x] = red[x];
        to[4 * x + 1] = green[x];
        to[4 * x + 2] = blue[x];
        to[4 * x + 3] = alpha[x];
    }
}

const uint8_t* row_of(const stillimage_picture& picture, int plane, uint32_t row)
{
    if (picture.plane[plane] == nullptr) {
        return nullptr;
    }
    const uint32_t last = picture.plane_height[plane] - 1;
    return picture.plane[plane] + uint64_t{std::min(row, last)} * picture.stride[plane];
}

} // namespace

rgb_rows::rgb_rows(const stillimage_picture& picture)
    : picture_(picture), u_(picture.width, no_colour), v_(picture.width, no_colour),
      red_(picture.width), green_(picture.width), blue_(picture.width),
      opaque_(picture.plane[STILLIMAGE_A] == nullptr ? picture.width : 0, opaque)
{
}

// Returns a row with a sample for each pixel: the plane's own row if it is one, else `spread`. The
// last sample of a short row is repeated.
const uint8_t* rgb_rows::chroma_row(int plane, uint32_t row, std::vector<uint8_t>& spread) const
{
    const uint8_t* samples = row_of(picture_, plane, row >> picture_.chroma_y_shift);
    const uint32_t count =
        std::min(picture_.plane_width[STILLIMAGE_U], picture_.plane_width[STILLIMAGE_V]);
    const unsigned shift = picture_.chroma_x_shift;
    if (samples == nullptr) {
        return spread.data();
    }
    if (shift == 0 && count >= picture_.width) {
        return samples;
    }
    const size_t whole = std::min<uint64_t>(picture_.width, uint64_t{count} << shift);
    for (size_t x = 0; x < whole; ++x) {
        spread[x] = samples[x >> shift];
    }
    std::fill(spread.begin() + static_cast<ptrdiff_t>(whole), spread.end(), samples[count - 1]);
    return spread.data();
}

void rgb_rows::put(uint32_t row, uint32_t channels, uint8_t* to)
{
    const size_t width = picture_.width;
    convert_row(row_of(picture_, STILLIMAGE_Y, row), chroma_row(STILLIMAGE_U, row, u_),
                chroma_row(STILLIMAGE_V, row, v_), width, red_.data(), green_.data(), blue_.data());
    if (channels == 3) {
        put_rgb(red_.data(), green_.data(), blue_.data(), width, to);
    } else {
        const uint8_t* alpha = row_of(picture_, STILLIMAGE_A, row);
        put_rgba(red_.data(), green_.data(), blue_.data(),
                 alpha == nullptr ? opaque_.data() : alpha, width, to);
    }
}
