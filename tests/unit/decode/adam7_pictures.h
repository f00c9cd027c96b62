// Interlaced PNG pictures of tests.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/support/png_writer.h"

namespace adam7_tests {

struct colour_form {
    uint8_t colour_type, depth;
};
extern const std::vector<colour_form> colour_forms; // all that the format has

// Samples and filters drawn by lot from `seed`; a palette with a few colours less than the samples
// can name.
png_spec random_picture(uint32_t width, uint32_t height, colour_form form, unsigned seed = 1);

// RGBA of one colour with this alpha in every pixel of the first pass and that one in the others.
png_spec rgba_picture(uint32_t width, uint32_t height, unsigned char first, unsigned char others);

} // namespace adam7_tests
