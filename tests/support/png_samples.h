// A second PNG reader for comparisons, on zlib alone: the rows as the program's reader settings
// have the library deliver them. 16 bits are scaled to 8; samples below 8 bits are unpacked, not
// scaled. Damaged image data gives the rows up to the damage.
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
    unsigned depth; // as the file has it
    unsigned colour_type;
    unsigned interlace;
    unsigned channels; // samples of a pixel
    std::vector<std::array<unsigned char, 3>> palette;
    std::vector<png_pass_samples> passes; // one, or the seven of Adam7

    // False after an error. When every row is delivered nevertheless, the error was met behind the
    // last one: it reached the caller's memory, but the call for it did not return.
    bool complete;
};

// The header must be sound.
png_samples read_png_samples(const std::vector<unsigned char>& file);
