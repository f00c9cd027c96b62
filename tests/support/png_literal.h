// The drawing rules of the PNG decoders for pictures without interlacing in their plainest form: a
// batch is filled, read whole, then converted pixel by pixel.
#pragma once

#include <cstddef>
#include <vector>

struct png_literal_options {
    size_t batches = ~static_cast<size_t>(0); // draw that many, then stop
    unsigned char before = 0;                 // what the allocation holds at first
};

// Rows that are drawn between two looks at the host.
size_t png_batch_rows(unsigned colour_type);

// The whole allocation of image_decoded_size bytes after drawing `file` by the rules. Reads the
// layout of an examined picture.
std::vector<unsigned char> draw_png_literally(const std::vector<unsigned char>& file,
                                              const png_literal_options& options = {});
