// One row of a decoded TIFF strip to one row of each plane.
#pragma once

#include <cstddef>
#include <cstdint>

#include <tiffio.h>

enum tiff_model : int { TIFF_RGB, TIFF_GRAYSCALE, TIFF_YCBCR, TIFF_CMYK, TIFF_PALETTE };

// One row; null for planes that are not drawn.
struct tiff_row {
    unsigned char* Y;
    unsigned char* U;
    unsigned char* V;
    unsigned char* A;
};

struct tiff_converter {
    tiff_model model;
    uint32_t bits;  // of a sample
    bool has_alpha; // the sample behind the colour; samples beyond it are not stepped over
    void (*convert)(const unsigned char* source, size_t count, const tiff_row& to);
    size_t unit; // pixels are written in groups of that many
};

// At most this many bytes are read for a pixel, whatever the converter.
inline constexpr size_t most_tiff_pixel_bytes = 5;

// Null when such rows are not drawn.
const tiff_converter* find_tiff_converter(tiff_model model, uint32_t bits, bool has_alpha);

// `count` must not be 0. Samples are written up to `count` rounded up to the converter's unit.
void convert_tiff_row(const tiff_converter& converter, const unsigned char* source, size_t count,
                      const tiff_row& to);

// What the rows of the next picture are drawn with: the luma of the bits 0 and 1, and the colours
// of 256 indices from the high bytes of the library's colormap.
void set_tiff_bit_luma(bool white_is_zero);
void set_tiff_colours(const uint16_t* red, const uint16_t* green, const uint16_t* blue);
