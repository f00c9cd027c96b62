#include "tests/unit/decode/adam7_pictures.h"

#include <algorithm>
#include <iterator>
#include <random>

namespace adam7_tests {

namespace {

struct grid {
    uint32_t first_row, row_step, first_column, column_step;
};

constexpr grid grids[7] = {{0, 8, 0, 8}, {0, 8, 4, 8}, {4, 8, 0, 4}, {0, 4, 2, 4},
                           {2, 4, 0, 2}, {0, 2, 1, 2}, {1, 2, 0, 1}};

uint32_t count_of(uint32_t size, uint32_t first, uint32_t step)
{
    return size > first ? (size - first - 1) / step + 1 : 0;
}

// Calls `row` for each row of the file with its pass, its columns and its bytes without the filter
// byte.
template <typename Row>
void for_each_row(const png_spec& spec, Row row)
{
    static constexpr size_t channels[] = {1, 0, 3, 1, 2, 0, 4};
    for (int pass = 0; pass < 7; ++pass) {
        const grid& g = grids[pass];
        const uint32_t columns = count_of(spec.width, g.first_column, g.column_step);
        const uint32_t rows = count_of(spec.height, g.first_row, g.row_step);
        for (uint32_t i = 0; columns != 0 && i < rows; ++i) {
            row(pass, columns, (columns * channels[spec.colour_type] * spec.depth + 7) / 8);
        }
    }
}

} // namespace

const std::vector<colour_form> colour_forms = {{0, 1}, {0, 2},  {0, 4},  {0, 8}, {0, 16},
                                               {2, 8}, {2, 16}, {3, 1},  {3, 2}, {3, 4},
                                               {3, 8}, {4, 8},  {4, 16}, {6, 8}, {6, 16}};

png_spec random_picture(uint32_t width, uint32_t height, colour_form form, unsigned seed)
{
    std::mt19937 random(seed);
    png_spec spec = {.width = width,
                     .height = height,
                     .depth = form.depth,
                     .colour_type = form.colour_type,
                     .interlace = 1};
    if (form.colour_type == 3) {
        png_chunk palette = {"PLTE"};
        const size_t colours = form.depth == 1 ? 1 : (size_t{1} << form.depth) - form.depth;
        for (size_t i = 0; i < 3 * colours; ++i) {
            palette.data.push_back(static_cast<unsigned char>(random()));
        }
        spec.chunks.push_back(palette);
    }
    for_each_row(spec, [&](int, uint32_t, size_t size) {
        spec.rows.push_back(static_cast<unsigned char>(random() % 5));
        std::generate_n(std::back_inserter(spec.rows), size,
                        [&random] { return static_cast<unsigned char>(random()); });
    });
    return spec;
}

png_spec rgba_picture(uint32_t width, uint32_t height, unsigned char first, unsigned char others)
{
    png_spec spec = {.width = width, .height = height, .colour_type = 6, .interlace = 1};
    for_each_row(spec, [&](int pass, uint32_t columns, size_t) {
        spec.rows.push_back(0);
        for (uint32_t i = 0; i < columns; ++i) {
            spec.rows.insert(spec.rows.end(), {200, 100, 50, pass == 0 ? first : others});
        }
    });
    return spec;
}

} // namespace adam7_tests
