// A second PNG reader for comparison, with zlib only: it returns the rows that the library delivers
// with the program's settings. 16-bit samples are scaled to 8 bits; samples of fewer than 8 bits
// are unpacked, not scaled. Of damaged image data it returns the rows before the damage.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

struct png_pass_samples {
    uint32_t first_row, row_step;
    uint32_t first_column, column_step;
    uint32_t rows, columns; // a pass without rows or columns has no data in the file
    std::vector<std::vector<unsigned char>> delivered; // `columns` * `channels` samples each
};

struct png_samples {
    uint32_t width, height;
    unsigned depth; // in the file
    unsigned colour_type;
    unsigned interlace;
    unsigned channels; // samples of a pixel
    std::vector<std::array<unsigned char, 3>> palette;
    std::vector<png_pass_samples> passes; // one, or the seven of Adam7

    // False after an error. If every row is delivered nevertheless, the error came after the last
    // row: the row reached the caller's memory, but the call that read it did not return.
    bool complete;
};

// The header must be valid.
png_samples read_png_samples(const std::vector<unsigned char>& file);
