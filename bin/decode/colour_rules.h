// The colour arithmetic for one sample or one pixel. Decoders and kernels follow these rules to the
// byte.
#pragma once

#include <cstdint>

// --- RGB ----------------------------------------------------------------------------------------

struct yuv_sample {
    unsigned char y; // 16..235
    unsigned char u; // 16..239
    unsigned char v;
};

// Full-range RGB to video-range YCbCr, ITU-R BT.601 with coefficients scaled by 256:
//   Y = (66 R + 129 G + 25 B + 4096) >> 8
//   U = (-38 R - 74 G + 112 B + 32768) >> 8
//   V = (112 R - 94 G - 18 B + 32768) >> 8
// The offsets are exactly 16 and 128, so every channel is truncated, not rounded. For arguments of
// 0..255 all three sums stay in 0..65535, so 16-bit wrapping arithmetic gives the same bytes.
constexpr yuv_sample rgb_to_yuv(uint16_t r, uint16_t g, uint16_t b)
{
    const auto y = static_cast<uint16_t>(66 * r + 129 * g + 25 * b + 4096);
    const auto u = static_cast<uint16_t>(32768 - 38 * r - 74 * g + 112 * b);
    const auto v = static_cast<uint16_t>(32768 + 112 * r - 94 * g - 18 * b);
    return {static_cast<unsigned char>(y >> 8), static_cast<unsigned char>(u >> 8),
            static_cast<unsigned char>(v >> 8)};
}

// --- full range to video range ------------------------------------------------------------------

// 0..255 to 16..235; the division truncates.
constexpr unsigned char rescale_luma_sample(unsigned char y)
{
    return static_cast<unsigned char>(y * 219 / 255 + 16);
}

// 0..255 to 16..239. The division truncates toward zero: three values give 128, and the largest
// result is 239, not 240.
constexpr unsigned char rescale_chroma_sample(unsigned char c)
{
    return static_cast<unsigned char>((c - 128) * 224 / 255 + 128);
}

// Fixed-point factors: x * 219 / 255 is the high half of x * 56284, and x * 224 / 255 that of
// x * 57569, for x in 0..255.
inline constexpr unsigned luma_multiplier = 56284;
inline constexpr unsigned chroma_multiplier = 57569;

constexpr bool fixed_point_is_exact()
{
    for (unsigned x = 0; x < 256; ++x) {
        if ((x * luma_multiplier) >> 16 != x * 219 / 255 ||
            (x * chroma_multiplier) >> 16 != x * 224 / 255) {
            return false;
        }
    }
    return true;
}
static_assert(fixed_point_is_exact());

// --- products of two samples --------------------------------------------------------------------

// t / 255, truncating, in 16-bit arithmetic. For t in 0..255 * 255.
constexpr uint16_t divided_by_255(uint16_t t)
{
    return static_cast<uint16_t>((t + 1 + (t >> 8)) >> 8);
}

constexpr bool division_by_255_is_exact()
{
    for (unsigned t = 0; t <= 255 * 255; ++t) {
        if (divided_by_255(static_cast<uint16_t>(t)) != t / 255) {
            return false;
        }
    }
    return true;
}
static_assert(division_by_255_is_exact());
