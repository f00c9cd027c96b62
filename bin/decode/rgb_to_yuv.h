// Full-range RGB to video-range YCbCr, ITU-R BT.601 with coefficients scaled by 256:
//   Y = (66 R + 129 G + 25 B + 4096) >> 8
//   U = (-38 R - 74 G + 112 B + 32768) >> 8
//   V = (112 R - 94 G - 18 B + 32768) >> 8
// The offsets are exactly 16 and 128: every channel is cut, not rounded. For samples of 0..255 all
// three sums stay in 0..65535, so 16-bit wrapping arithmetic gives the same bytes.
#pragma once

#include <cstdint>

struct yuv_sample {
    unsigned char y; // 16..235
    unsigned char u; // 16..239
    unsigned char v;
};

// Arguments are 0..255.
constexpr yuv_sample rgb_to_yuv(uint16_t r, uint16_t g, uint16_t b)
{
    const auto y = static_cast<uint16_t>(66 * r + 129 * g + 25 * b + 4096);
    const auto u = static_cast<uint16_t>(32768 - 38 * r - 74 * g + 112 * b);
    const auto v = static_cast<uint16_t>(32768 + 112 * r - 94 * g - 18 * b);
    return {static_cast<unsigned char>(y >> 8), static_cast<unsigned char>(u >> 8),
            static_cast<unsigned char>(v >> 8)};
}
