// A plain implementation of the raw JPEG decoders, for comparison: every band is filled before each
// row group, rows are decoded into separate buffers with room to spare, and samples are converted
// one by one.
#pragma once

#include <cstddef>
#include <vector>

#include "tests/support/jpeg_writer.h"

struct literal_options {
    size_t groups = ~static_cast<size_t>(0); // stop after drawing that many row groups
    bool fill_one_more = false;              // ... after filling the band of the next one
    unsigned char before = 0;                // initial contents of the allocation
};

// Draws `file` and returns the whole allocation of image_decoded_size bytes. Reads the image state
// and the layout of an examined picture.
std::vector<unsigned char> draw_literally(const jpeg_writer::file_bytes& file,
                                          const literal_options& options = {});
