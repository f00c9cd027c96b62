// A plain implementation of the PNG decoders for pictures without interlacing, for comparison: a
// batch is filled, read completely, then converted pixel by pixel.
#pragma once

#include <cstddef>
#include <vector>

struct png_literal_options {
    size_t batches = ~static_cast<size_t>(0); // stop after drawing that many
    unsigned char before = 0;                 // initial contents of the allocation
};

// Rows of a batch. The program serves its clients between two batches.
size_t png_batch_rows(unsigned colour_type);

// Draws `file` and returns the whole allocation of image_decoded_size bytes. Reads the layout of an
// examined picture.
std::vector<unsigned char> draw_png_literally(const std::vector<unsigned char>& file,
                                              const png_literal_options& options = {});
