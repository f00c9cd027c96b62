// A row of a pass is converted to samples at once. Its blocks are painted into one row of each plane
// and that row is copied down to the rest of the blocks, with what earlier passes left between them:
// there the rows are equal, since those passes painted larger blocks on the same grid.
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
#include "bin/decode/rescale.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/examine/png_input.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/media_item.h"
#include "platform/misc.h"

namespace {

constexpr int pass_count = 7;
constexpr uint64_t band_rows = 8;
constexpr int plane_count = 4;
constexpr uint64_t spare_bytes = 64; // behind the row that the library writes

constexpr unsigned char prefill[plane_count] = {16, 128, 128, 0}; // alpha: transparent, not opaque

// Rows of a pass are those of adam7_yo and adam7_ystep.
struct adam7_pass {
    uint64_t first_column;
    uint64_t column_step; // also the size of the groups that `paint` draws
    uint64_t block_rows;
    uint64_t rows_above; // of the mapped band, above the pass row
    block_painter paint; // null: pixel by pixel
    bool mipmaps_follow;
};

constexpr adam7_pass passes[pass_count] = {
    {0, 8, 8, 0, paint_8_of_8, true},  {4, 8, 8, 0, paint_4_of_8, false},
    {0, 4, 4, 4, paint_4_of_4, true},  {2, 4, 4, 0, paint_2_of_4, false},
    {0, 2, 2, 2, paint_2_of_2, false}, {1, 2, 2, 0, paint_1_of_2, false},
    {0, 1, 1, 0, nullptr, true},
};

// Where samples go, a pointer for each plane.
struct plane_pointers {
    unsigned char* at[plane_count];
};
static_assert(std::is_trivially_destructible_v<plane_pointers>);

// --- colour types -------------------------------------------------------------------------------

// Writes `count` samples to each plane that the colour type has; the pointers of others may be null.
using pixel_converter = void (*)(const unsigned char* pixels, size_t count,
                                 const plane_pointers& out);

packed_yuva palette_colours[256];
packed_yuva packed_row[image_size_limit];
unsigned char sample_rows[plane_count][image_size_limit];

void convert_grey(const unsigned char* pixels, size_t count, const plane_pointers& out)
{
    memcpy(out.at[PLANE_Y], pixels, count);
    jpeg_rescale_luma_to_16_235(out.at[PLANE_Y], count);
}

void convert_rgb(const unsigned char* pixels, size_t count, const plane_pointers& out)
{
    rgb_to_planes(pixels, count, out.at[PLANE_Y], out.at[PLANE_U], out.at[PLANE_V]);
}

void convert_palette(const unsigned char* pixels, size_t count, const plane_pointers& out)
{
    for (size_t i = 0; i < count; ++i) {
        packed_row[i] = palette_colours[pixels[i]];
    }
    split_yuva(packed_row, count, out.at[PLANE_Y], out.at[PLANE_U], out.at[PLANE_V], nullptr);
}

void convert_grey_alpha(const unsigned char* pixels, size_t count, const plane_pointers& out)
{
    grey_alpha_to_planes(pixels, count, out.at[PLANE_Y], out.at[PLANE_A]);
}

void convert_rgba(const unsigned char* pixels, size_t count, const plane_pointers& out)
{
    rgba_to_planes(pixels, count, out.at[PLANE_Y], out.at[PLANE_U], out.at[PLANE_V],
                   out.at[PLANE_A]);
}

struct colour_model {
    int colour_type;
    uint64_t bytes_per_pixel;
    pixel_converter convert;
};

constexpr colour_model colour_models[] = {
    {PNG_COLOR_TYPE_GRAY, 1, convert_grey},
    {PNG_COLOR_TYPE_RGB, 3, convert_rgb},
    {PNG_COLOR_TYPE_PALETTE, 1, convert_palette},
    {PNG_COLOR_TYPE_GRAY_ALPHA, 2, convert_grey_alpha},
    {PNG_COLOR_TYPE_RGB_ALPHA, 4, convert_rgba},
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

// The mapped rows round a pass row; null for planes that are not drawn.
struct mapped_band {
    unsigned char* base[plane_count];
    uint64_t rows;
};
static_assert(std::is_trivially_destructible_v<mapped_band>);

// Asked for each row: the first mipmaps may have dropped the alpha plane.
bool is_drawn(int plane)
{
    if (plane == PLANE_A) {
        return image_has_alpha_channel != 0;
    }
    return plane == PLANE_Y || image_is_monochrome == 0;
}

bool map_band(const adam7_pass& pass, uint64_t row, mapped_band* band)
{
    const uint64_t first = row - pass.rows_above;
    band->rows = std::min(band_rows, static_cast<uint64_t>(image_buffer_height) - first);
    for (int i = 0; i < plane_count; ++i) {
        band->base[i] = nullptr;
        if (is_drawn(i)) {
            band->base[i] = map_plane_rows(frame_planes[i], first, band->rows);
            if (band->base[i] == nullptr) {
                return false;
            }
        }
    }
    return true;
}

void fill_band(const mapped_band& band)
{
    for (int i = 0; i < plane_count; ++i) {
        if (band.base[i] != nullptr) {
            memset(band.base[i], prefill[i], band.rows * *frame_planes[i].stride);
        }
    }
}

uint64_t columns_of(const adam7_pass& pass)
{
    const auto width = static_cast<uint64_t>(image_width);
    return (width + pass.column_step - 1 - pass.first_column) / pass.column_step;
}

// Where the pass row lies in a plane of the band.
unsigned char* pass_row(const adam7_pass& pass, const mapped_band& band, int plane)
{
    return band.base[plane] + pass.rows_above * *frame_planes[plane].stride;
}

// Single pixels are converted in their place, blocks beside the planes. So is what a pixel has and
// the picture has no plane for.
plane_pointers places_for_samples(const adam7_pass& pass, const mapped_band& band)
{
    plane_pointers places = {};
    for (int i = 0; i < plane_count; ++i) {
        const bool in_place = pass.paint == nullptr && band.base[i] != nullptr;
        places.at[i] = in_place ? pass_row(pass, band, i) : sample_rows[i];
    }
    return places;
}

void paint_blocks(const adam7_pass& pass, const mapped_band& band, uint64_t columns)
{
    const uint64_t rows = std::min(pass.block_rows, band.rows - pass.rows_above);
    for (int i = 0; i < plane_count; ++i) {
        if (band.base[i] == nullptr) {
            continue;
        }
        unsigned char* const first = pass_row(pass, band, i);
        pass.paint(first, sample_rows[i], columns);
        for (uint64_t row = 1; row < rows; ++row) {
            memcpy(first + row * *frame_planes[i].stride, first, columns * pass.column_step);
        }
    }
}

// The library has no rows for a pass without columns.
void draw_row(const adam7_pass& pass, const colour_model& model, const mapped_band& band,
              unsigned char* pixels)
{
    const uint64_t columns = columns_of(pass);
    if (columns == 0) {
        return;
    }
    png_bytep rows[1] = {pixels};
    png_read_rows(png_context, rows, nullptr, 1);
    model.convert(pixels, columns, places_for_samples(pass, band));
    if (pass.paint != nullptr) {
        paint_blocks(pass, band, columns);
    }
}

// --- the passes ---------------------------------------------------------------------------------

// Rows of all passes together, those without columns included.
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

// Stops early with DIE4 and where a band cannot be mapped; the library's rows that are left then go
// to the passes that follow.
void draw_pass(int number, const colour_model& model, unsigned char* pixels, row_count* counted)
{
    const adam7_pass& pass = passes[number];
    const auto height = static_cast<uint64_t>(image_height);
    for (uint64_t row = adam7_yo[number]; row < height && DIE4 == 0; row += adam7_ystep[number]) {
        vexa_status_write(static_cast<int>(counted->read * 100 / counted->total), "Decoding PNG");
        quickidle_comm();
        mapped_band band = {};
        if (!map_band(pass, row, &band)) {
            return;
        }
        if (number == 0) {
            fill_band(band);
        }
        draw_row(pass, model, band, pixels);
        ++counted->read;
    }
}

// Done after every pass, however it ended.
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

// *number is the pass at hand, also after a jump.
void draw_passes(const colour_model& model, unsigned char* pixels, int* number)
{
    row_count counted = {0, count_rows()};
    for (; *number < pass_count; ++*number) {
        draw_pass(*number, model, pixels, &counted);
        end_pass(*number);
    }
}

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

// A termination signal cuts every pass short, wherever it is noticed; an error skips them.
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

int prepare_palette(const char* decoder)
{
    png_palette palette = {};
    if (fetch_png_palette(decoder, &palette) != 0) {
        return -1;
    }
    convert_png_palette(palette, palette_colours);
    return 0;
}

} // namespace

int full_decode_png_rgb_adam7()
{
    static unsigned char* RGB = nullptr; // NOLINT(readability-identifier-naming): given name
    INVARIANT(png_interlace_method == 1, "png_interlace_method == 1");
    if (png_color_type == PNG_COLOR_TYPE_PALETTE && prepare_palette(__func__) != 0) {
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
    INVARIANT(image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    INVARIANT(image_chroma_x_shift == 0, "image_chroma_x_shift == 0");
    INVARIANT(image_chroma_y_shift == 0, "image_chroma_y_shift == 0");
    draw_picture(model, RGB);
    vexa_status_write(100, "");
    free(RGB);
    RGB = nullptr;
    return 0;
}
