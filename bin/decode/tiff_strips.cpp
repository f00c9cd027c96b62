// For each pass a band of rows is mapped at the row that comes next, and one strip is read from its
// start. By rule the whole band is black before the strip is drawn into its top. The passes that
// follow draw over the rest of it, so the black is painted only where it stays: in the stride
// padding, in rows whose samples are not drawn, and, when the loop ends, below the last drawn row.
//
// Kept as is: a strip taller than the band is read from its start again by the next pass, so that
// its first rows repeat.
#include "bin/decode/tiff_strips.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bin/decode/pace.h"
#include "bin/decode/tiff_strip_reader.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/media_item.h"

namespace {

constexpr uint32_t large_strip = 16777216;
constexpr int all_planes = 4;

uint64_t lesser(uint64_t a, uint64_t b)
{
    return a < b ? a : b;
}

void check(const tiff_variant& variant, bool condition, const char* text)
{
    if (!condition) {
        invariant_failed(variant.name, text);
    }
}

void check_examination(const tiff_variant& variant)
{
    check(variant, tiff_bps != 0, "tiff_bps != 0");
    check(variant, tiff_spp != 0, "tiff_spp != 0");
    check(variant, tiff_strips != 0, "tiff_strips != 0");
    check(variant, tiff_stripsize != 0, "tiff_stripsize != 0");
    check(variant, tiff_stripheight != 0, "tiff_stripheight != 0");
    check(variant, tiff_width != 0, "tiff_width != 0");
    check(variant, tiff_height != 0, "tiff_height != 0");
    check(variant, tiff_bytes_per_row != 0, "tiff_bytes_per_row != 0");
    check(variant, image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    check(variant, image_chroma_x_shift == 0, "image_chroma_x_shift == 0");
    check(variant, image_chroma_y_shift == 0, "image_chroma_y_shift == 0");
}

// --- the band -----------------------------------------------------------------------------------

// The rows mapped by the last pass that could map them all.
struct band {
    unsigned char* base[all_planes]; // null for planes that are not drawn
    uint64_t rows;
    uint64_t drawn; // of these, from the top; black ones included
};

frame_plane plane_of(const tiff_variant& variant, int index)
{
    frame_plane plane = frame_planes[index];
    if (index == PLANE_A) {
        plane.map_failure = frame_planes[variant.alpha_failure_is].map_failure;
    }
    return plane;
}

bool is_drawn(const tiff_variant& variant, int index)
{
    if (index == PLANE_A) {
        return variant.draws_alpha && image_has_alpha_channel != 0;
    }
    return index < variant.planes;
}

// Null when rows of the picture are not drawn.
const tiff_converter* converter_for(const tiff_variant& variant)
{
    return find_tiff_converter(variant.model, tiff_bps, is_drawn(variant, PLANE_A));
}

bool map_band(const tiff_variant& variant, uint64_t row, band* mapped)
{
    band next = {};
    next.rows = lesser(variant.band_rows, static_cast<uint64_t>(image_height) - row);
    for (int i = 0; i < all_planes; ++i) {
        if (!is_drawn(variant, i)) {
            continue;
        }
        next.base[i] = map_plane_rows(plane_of(variant, i), row, next.rows);
        if (next.base[i] == nullptr) {
            return false;
        }
    }
    *mapped = next;
    return true;
}

// The part of the given rows from column `x` on, where decoding draws nothing. The row behind the
// last that was done: `last`, or an earlier one in a large band when a signal comes meanwhile.
uint64_t blacken(const tiff_variant& variant, const band& mapped, uint64_t first, uint64_t last,
                 uint64_t x)
{
    constexpr uint64_t samples_at_once = uint64_t{1} << 25; // some ten milliseconds
    work_pace pace = {samples_at_once};
    uint64_t y = first;
    for (bool goes_on = variant.starts_black; goes_on && y < last; ++y) {
        for (int i = 0; i < all_planes; ++i) {
            const frame_plane& plane = frame_planes[i];
            if (mapped.base[i] != nullptr) {
                memset(mapped.base[i] + y * *plane.stride + x, plane.black, *plane.stride - x);
                goes_on = keep_pace(&pace, *plane.stride - x) && goes_on;
            }
        }
    }
    return variant.starts_black ? y : last;
}

unsigned char* row_of(const band& mapped, int index, uint64_t y)
{
    unsigned char* base = mapped.base[index];
    return base == nullptr ? nullptr : base + y * *frame_planes[index].stride;
}

tiff_row row_of_all(const band& mapped, uint64_t y)
{
    return {row_of(mapped, PLANE_Y, y), row_of(mapped, PLANE_U, y), row_of(mapped, PLANE_V, y),
            row_of(mapped, PLANE_A, y)};
}

// Draws so many rows of the strip into the top of the band, fewer when a signal comes meanwhile.
void draw_rows(const tiff_converter& converter, const strip_buffer& buffer, uint64_t rows,
               band* mapped)
{
    constexpr uint64_t pixels_at_once = uint64_t{1} << 21; // some milliseconds
    work_pace pace = {pixels_at_once};
    bool goes_on = true;
    for (uint64_t y = 0; goes_on && y < rows; ++y) {
        convert_tiff_row(converter, buffer.bytes + y * tiff_bytes_per_row, tiff_width,
                         row_of_all(*mapped, y));
        mapped->drawn = y + 1;
        goes_on = keep_pace(&pace, tiff_width);
    }
}

// As draw_rows, with the black around the pixels.
void draw_band(const tiff_variant& variant, const strip_buffer& buffer, uint64_t rows, band* mapped)
{
    const tiff_converter* converter = converter_for(variant);
    if (converter == nullptr) {
        mapped->drawn = blacken(variant, *mapped, 0, rows, 0);
        return;
    }
    draw_rows(*converter, buffer, rows, mapped);
    const uint64_t written = (tiff_width + converter->unit - 1) / converter->unit * converter->unit;
    blacken(variant, *mapped, 0, mapped->drawn, written);
}

// --- the loop -----------------------------------------------------------------------------------

uint64_t bytes_to_read(const tiff_variant& variant, uint64_t band_rows)
{
    uint64_t rem = lesser(band_rows, tiff_stripheight) * tiff_bytes_per_row;
    if (rem > tiff_stripsize) {
        fputs("WARNING: bytes for reading strip exceed recommended stripsize\n", stderr);
        rem = tiff_stripsize;
    }
    check(variant, rem > 0, "rem > 0u");
    check(variant, rem <= tiff_stripsize, "rem <= tiff_stripsize");
    return rem;
}

// Draws one strip at `row`. The rows that it gave; 0 when the loop has to stop.
uint64_t draw_strip(const tiff_variant& variant, strip_buffer* buffer, uint64_t row, band* mapped)
{
    vexa_status_write(static_cast<int>(row * 100 / static_cast<uint64_t>(image_height)),
                      "Decoding TIFF");
    quickidle_comm();
    if (!map_band(variant, row, mapped)) {
        return 0;
    }
    const uint64_t wanted = bytes_to_read(variant, mapped->rows);
    const uint64_t got = read_strip(buffer, row / tiff_stripheight, wanted);
    const uint64_t rows = got / tiff_bytes_per_row;
    draw_band(variant, *buffer, rows, mapped);
    return rows;
}

// Room for the rows that one pass can ask for.
bool allocate_strip(const tiff_variant& variant, strip_buffer* buffer)
{
    const uint64_t rows =
        lesser(lesser(variant.band_rows, tiff_stripheight), static_cast<uint64_t>(image_height));
    return allocate_strip_buffer(buffer, rows, converter_for(variant) != nullptr);
}

void draw_all_strips(const tiff_variant& variant, strip_buffer* buffer)
{
    const auto height = static_cast<uint64_t>(image_height);
    uint64_t row = 0;
    band last = {};
    while (DIE4 == 0 && row < height) {
        const uint64_t rows = draw_strip(variant, buffer, row, &last);
        if (rows == 0) {
            break;
        }
        row += rows;
    }
    blacken(variant, last, last.drawn, last.rows, 0);
    vexa_status_write(100, "");
}

void warn_of_large_strips()
{
    if (tiff_stripsize <= large_strip) {
        return;
    }
    fputs("WARNING: TIFF uses large strip size. This is known to cause decoding bugs in libtiff "
          "that may cause display problems.\n"
          "         Consider re-saving the image in a program that subdivides the image "
          "correctly.\n"
          "         This message can appear for large TIFFs converted by ImageMagick.\n",
          stderr);
}

// What the converter needs beside the samples.
bool prepare_colours(const tiff_variant& variant)
{
    set_tiff_bit_luma(tiff_photometric == PHOTOMETRIC_MINISWHITE);
    if (variant.model != TIFF_PALETTE) {
        return true;
    }
    uint16_t* red = nullptr;
    uint16_t* green = nullptr;
    uint16_t* blue = nullptr;
    if (TIFFGetField(tiff_image, TIFFTAG_COLORMAP, &red, &green, &blue) == 0 || red == nullptr ||
        green == nullptr || blue == nullptr) {
        fputs("Unable to retrieve colormap\n", stderr);
        return false;
    }
    if (tiff_bps == 8) { // with fewer bits the colormap is shorter
        set_tiff_colours(red, green, blue);
    }
    return true;
}

} // namespace

int decode_tiff_strips(const tiff_variant& variant)
{
    check_examination(variant);
    warn_of_large_strips();
    strip_buffer buffer = {};
    if (!allocate_strip(variant, &buffer)) {
        fputs("Unable to allocate TIFF strip\n", stderr);
        free_all_png_fileio();
        return -1;
    }
    const bool prepared = prepare_colours(variant);
    if (prepared) {
        draw_all_strips(variant, &buffer);
    }
    free(buffer.bytes);
    return prepared ? 0 : -1;
}
