// Interlaced PNG pictures for tests.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/support/png_writer.h"

namespace adam7_tests {

struct colour_form {
    uint8_t colour_type, depth;
};
extern const std::vector<colour_form> colour_forms; // all forms of the format

// Random samples and filters from `seed`. The palette has a few colours fewer than the samples can
// index.
png_spec random_picture(uint32_t width, uint32_t height, colour_form form, unsigned seed = 1);

// RGBA pixels of one colour: alpha `first` in the first pass and `others` in all others.
png_spec rgba_picture(uint32_t width, uint32_t height, unsigned char first, unsigned char others);

} // namespace adam7_tests
