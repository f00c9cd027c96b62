#include "bin/decode/tiff.h"

#include <cstdio>

#include "bin/decode/planes.h"
#include "bin/decode/tiff_rows.h"
#include "bin/decode/tiff_strips.h"

namespace {

// clang-format off
// Kept as is: two of the decoders speak of V when A cannot be mapped.
//
//     decoder                     model           band  planes alpha   black  speaks of
constexpr tiff_variant rgb =
    {"full_decode_tiff_rgb",       TIFF_RGB,       2048, 3,     true,   true,  PLANE_V};
constexpr tiff_variant grayscale =
    {"full_decode_tiff_grayscale", TIFF_GRAYSCALE, 64,   1,     true,   true,  PLANE_A};
constexpr tiff_variant ycbcr =
    {"full_decode_tiff_ycbcr",     TIFF_YCBCR,     2048, 3,     true,   false, PLANE_V};
constexpr tiff_variant cmyk =
    {"full_decode_tiff_cmyk",      TIFF_CMYK,      64,   3,     true,   true,  PLANE_A};
constexpr tiff_variant palette =
    {"full_decode_tiff_palette",   TIFF_PALETTE,   2048, 3,     false,  true,  PLANE_A};
// clang-format on

} // namespace

int full_decode_tiff_rgb()
{
    return decode_tiff_strips(rgb);
}

int full_decode_tiff_grayscale()
{
    return decode_tiff_strips(grayscale);
}

int full_decode_tiff_cmyk()
{
    return decode_tiff_strips(cmyk);
}

int full_decode_tiff_palette()
{
    return decode_tiff_strips(palette);
}

void full_decode_tiff_ycbcr()
{
    if (decode_tiff_strips(ycbcr) != 0) {
        fputs("WARNING: Failed to decode TIFF\n", stderr);
    }
}
