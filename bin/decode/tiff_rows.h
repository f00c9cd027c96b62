// One row of a decoded TIFF strip to one row of each plane.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bin/decode/colour_rows.h"

enum tiff_model : int { TIFF_RGB, TIFF_GRAYSCALE, TIFF_YCBCR, TIFF_CMYK, TIFF_PALETTE };

struct tiff_converter {
    tiff_model model;
    uint32_t bits;  // of a sample
    bool has_alpha; // the sample after the colour; further samples are not skipped
    colour_run convert;
    size_t unit; // pixels are written in groups of this size
};

// No converter reads more bytes for a pixel.
inline constexpr size_t max_tiff_pixel_bytes = 5;

// Null when such rows are not drawn.
const tiff_converter* find_tiff_converter(tiff_model model, uint32_t bits, bool has_alpha);

// `count` must not be 0. Samples are written up to `count` rounded up to the converter's unit.
void convert_tiff_row(const tiff_converter& converter, const unsigned char* source, size_t count,
                      const sample_planes& to);

// Sets up the rows of the next picture: the luma of the bits 0 and 1, and palette_colours from the
// high bytes of the library's colormap.
void set_tiff_bit_luma(bool white_is_zero);
void set_tiff_colours(const uint16_t* red, const uint16_t* green, const uint16_t* blue);
