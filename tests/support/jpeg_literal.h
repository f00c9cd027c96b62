// The drawing rules of the raw JPEG decoders in their plainest form, for comparison: every band is
// filled anew before each row group, rows are decoded one beside the other with room to spare, and
// samples are converted one by one.
#pragma once

#include <cstddef>
#include <vector>

#include "tests/support/jpeg_writer.h"

struct literal_options {
    size_t groups = ~static_cast<size_t>(0); // draw that many row groups, then stop
    bool fill_one_more = false;              // ... after filling the band of the next one
    unsigned char before = 0;                // what the allocation holds at first
};

// The whole allocation of image_decoded_size bytes after drawing `file` by the rules. Reads the
// image state and the layout of an examined picture.
std::vector<unsigned char> draw_literally(const jpeg_writer::file_bytes& file,
                                          const literal_options& options = {});
