// A row of a pass is converted to samples in one go. Its blocks are painted into one row of each
// plane, and that row is copied down to the other rows of the blocks. The copy includes what
// earlier passes left between the blocks: there the rows are equal, because those passes painted
// larger blocks on the same grid.
#include "bin/decode/png_adam7.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "bin/decode/colour_rows.h"
#include "bin/decode/planes.h"
#include "bin/decode/png_adam7_blocks.h"
#include "bin/decode/png_palette.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/examine/png_input.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/cnb.h"
#include "platform/misc.h"
#include "platform/run_state.h"
#include "platform/status.h"

namespace {

constexpr int pass_count = 7;
constexpr uint64_t band_rows = 8;
constexpr uint64_t spare_bytes = 64; // behind the row that the library writes

constexpr plane_samples transparent_black = {16, 128, 128, 0};

// The rows of a pass are those of adam7_yo and adam7_ystep.
struct adam7_pass {
    uint64_t first_column;
    uint64_t column_step; // also the size of the groups that `paint` draws
    uint64_t block_rows;
    uint64_t rows_above; // of the mapped band, above the pass row
    block_painter paint; // null: single pixels
    bool mipmaps_follow;
};

constexpr adam7_pass passes[pass_count] = {
    {0, 8, 8, 0, paint_8_of_8, true},  {4, 8, 8, 0, paint_4_of_8, false},
    {0, 4, 4, 4, paint_4_of_4, true},  {2, 4, 4, 0, paint_2_of_4, false},
    {0, 2, 2, 2, paint_2_of_2, false}, {1, 2, 2, 0, paint_1_of_2, false},
    {0, 1, 1, 0, nullptr, true},
};

struct colour_model {
    int colour_type;
    uint64_t bytes_per_pixel;
    colour_run convert;
};

constexpr colour_model colour_models[] = {
    {PNG_COLOR_TYPE_GRAY, 1, grey_to_planes},
    {PNG_COLOR_TYPE_RGB, 3, rgb_to_planes},
    {PNG_COLOR_TYPE_PALETTE, 1, palette_to_planes},
    {PNG_COLOR_TYPE_GRAY_ALPHA, 2, grey_alpha_to_planes},
    {PNG_COLOR_TYPE_RGB_ALPHA, 4, rgba_to_planes},
};

const colour_model& model_of_picture()
{
    for (const colour_model& model : colour_models) {
        if (model.colour_type == png_color_type) {
            return model;
        }
    }
    abort();
}

// --- one row of a pass --------------------------------------------------------------------------

// Samples of a pass row that are not written straight into the planes.
unsigned char sample_rows[plane_count][image_size_limit];

// Evaluated for each row, because the first mipmaps may drop the alpha plane.
unsigned drawn_planes()
{
    return (image_is_monochrome == 0 ? planes_yuv : planes_y) |
           (image_has_alpha_channel != 0 ? planes_a : 0);
}

bool map_rows_around(const adam7_pass& pass, uint64_t row, plane_band* band)
{
    const uint64_t first = row - pass.rows_above;
    const uint64_t rows = std::min(band_rows, static_cast<uint64_t>(image_buffer_height) - first);
    return map_band({.planes = drawn_planes(), .first_row = first, .rows = rows}, band);
}

uint64_t columns_of(const adam7_pass& pass)
{
    const auto width = static_cast<uint64_t>(image_width);
    return (width + pass.column_step - 1 - pass.first_column) / pass.column_step;
}

// The pass row in a plane of the band; null when the plane is not mapped.
unsigned char* pass_row(const adam7_pass& pass, const plane_band& band, int plane)
{
    unsigned char* base = band.base[plane];
    return base == nullptr ? nullptr : base + pass.rows_above * *frame_planes[plane].stride;
}

// Single pixels are converted into the plane. Pixels of blocks, and samples that the picture has no
// plane for, are converted into a row of their own.
unsigned char* sample_row(const adam7_pass& pass, const plane_band& band, int plane)
{
    unsigned char* in_place = pass.paint == nullptr ? pass_row(pass, band, plane) : nullptr;
    return in_place != nullptr ? in_place : sample_rows[plane];
}

void paint_blocks(const adam7_pass& pass, const plane_band& band, uint64_t columns)
{
    const uint64_t rows = std::min(pass.block_rows, band.rows - pass.rows_above);
    for (int i = 0; i < plane_count; ++i) {
        unsigned char* const first = pass_row(pass, band, i);
        if (first == nullptr) {
            continue;
        }
        pass.paint(first, sample_rows[i], columns);
        for (uint64_t row = 1; row < rows; ++row) {
            memcpy(first + row * *frame_planes[i].stride, first, columns * pass.column_step);
        }
    }
}

// Does nothing for a pass without columns: the library has no rows for it.
void draw_row(const adam7_pass& pass, const colour_model& model, const plane_band& band,
              unsigned char* pixels)
{
    const uint64_t columns = columns_of(pass);
    if (columns == 0) {
        return;
    }
    png_bytep rows[1] = {pixels};
    png_read_rows(png_context, rows, nullptr, 1);
    model.convert(pixels, columns,
                  {sample_row(pass, band, PLANE_Y), sample_row(pass, band, PLANE_U),
                   sample_row(pass, band, PLANE_V), sample_row(pass, band, PLANE_A)});
    if (pass.paint != nullptr) {
        paint_blocks(pass, band, columns);
    }
}

// --- the passes ---------------------------------------------------------------------------------

// Rows of all passes together, including those of passes without columns.
struct row_count {
    uint64_t read;
    uint64_t total;
};
static_assert(std::is_trivially_destructible_v<row_count>);

uint64_t count_rows()
{
    const auto height = static_cast<uint64_t>(image_height);
    uint64_t total = 0;
    for (int i = 0; i < pass_count; ++i) {
        total += (height + adam7_ystep[i] - 1 - adam7_yo[i]) / adam7_ystep[i];
    }
    return total;
}

// Stops early with DIE4, and when a band cannot be mapped; the following passes then read the rows
// that are left in the library.
void draw_pass(int number, const colour_model& model, unsigned char* pixels, row_count* counted)
{
    const adam7_pass& pass = passes[number];
    const auto height = static_cast<uint64_t>(image_height);
    for (uint64_t row = adam7_yo[number]; row < height && DIE4 == 0; row += adam7_ystep[number]) {
        vexa_status_write(static_cast<int>(counted->read * 100 / counted->total), "Decoding PNG");
        quickidle_comm();
        plane_band band = {};
        if (!map_rows_around(pass, row, &band)) {
            return;
        }
        if (number == 0) {
            blacken_undrawn(band, transparent_black);
        }
        draw_row(pass, model, band, pixels);
        ++counted->read;
    }
}

// Runs after every pass, however it ended.
void end_pass(int number)
{
    if (number == 0) {
        vexa_ready_write(-1, "Provisional image ready");
    }
    if (passes[number].mipmaps_follow) {
        generate_all_mipmaps();
    }
    vexa_global_access_cache_cleanup_idle(vexa_acc_cache);
}

// *number is the current pass, also after a jump.
void draw_passes(const colour_model& model, unsigned char* pixels, int* number)
{
    row_count counted = {0, count_rows()};
    for (; *number < pass_count; ++*number) {
        draw_pass(*number, model, pixels, &counted);
        end_pass(*number);
    }
}

// False when the library jumped.
bool draw_passes_armed(const colour_model& model, unsigned char* pixels, int* number)
{
    if (setjmp(png_jmpbuf(png_context)) != 0) {
        png_abort_unexpected();
        return false;
    }
    draw_passes(model, pixels, number);
    png_abort_unexpected();
    return true;
}

// A termination signal ends every remaining pass at once, with what follows it; a library error
// skips them.
void draw_picture(const colour_model& model, unsigned char* pixels)
{
    int number = 0;
    if (draw_passes_armed(model, pixels, &number)) {
        return;
    }
    if (!png_input_was_stopped()) {
        fputs("Unexpected PNG error while reading, aborting decode\n", stderr);
        return;
    }
    for (; number < pass_count; ++number) {
        end_pass(number);
    }
}

} // namespace

int full_decode_png_rgb_adam7()
{
    static unsigned char* RGB = nullptr; // NOLINT(readability-identifier-naming): given name
    INVARIANT(png_interlace_method == 1, "png_interlace_method == 1");
    if (png_color_type == PNG_COLOR_TYPE_PALETTE && prepare_png_palette(__func__) != 0) {
        return -1;
    }
    const colour_model& model = model_of_picture();
    RGB = static_cast<unsigned char*>(
        calloc(1, image_stride_Y * model.bytes_per_pixel + spare_bytes));
    if (RGB == nullptr) {
        fputs("Unable to allocate RGB row\n", stderr);
        free_all_png_fileio();
        return -1;
    }
    check_full_size_chroma(__func__);
    draw_picture(model, RGB);
    vexa_status_write(100, "");
    free(RGB);
    RGB = nullptr;
    return 0;
}
