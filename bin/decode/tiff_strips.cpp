// For each pass a band of rows is mapped at the row that comes next, and one strip is read from its
// start. By rule the whole band is black before the strip is drawn into its top. The passes that
// follow draw over the rest of it, so the black is painted only where it stays: in the stride
// padding, in rows whose samples are not drawn, and, when the loop ends, below the last drawn row.
//
// Kept as is: a strip taller than the band is read from its start again by the next pass, so that
// its first rows repeat. The library is not asked again for bytes that are still there.
#include "bin/decode/tiff_strips.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bin/decode/tiff_jbig.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/media_item.h"

namespace {

constexpr uint32_t large_strip = 16777216;
constexpr uint64_t no_strip = UINT64_MAX;
constexpr int all_planes = 4;

// Rows of separate planes hold one sample a pixel, and the converters read several: so much lies
// behind the last row.
constexpr uint64_t spare_pixel_bytes = 6;
static_assert(spare_pixel_bytes >= most_tiff_pixel_bytes);

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

// --- the strip buffer ---------------------------------------------------------------------------

struct strip_buffer {
    unsigned char* bytes;
    uint64_t size;
    uint64_t strip; // whose first bytes it holds, all that were asked for; or no_strip
    uint64_t held;  // bytes that may differ from 0, from the start
};

// Room for the rows that one pass can ask for, and zero behind them.
bool allocate_strip(const tiff_variant& variant, strip_buffer* buffer)
{
    const uint64_t rows =
        lesser(lesser(variant.band_rows, tiff_stripheight), static_cast<uint64_t>(image_height));
    buffer->size = rows * tiff_bytes_per_row + spare_pixel_bytes * tiff_width;
    buffer->bytes = static_cast<unsigned char*>(calloc(buffer->size, 1));
    buffer->strip = no_strip;
    buffer->held = 0;
    return buffer->bytes != nullptr;
}

// Bytes read, or the library's error, -1, which becomes more than was asked for.
uint64_t read_some(uint32_t strip, unsigned char* bytes, uint64_t wanted)
{
    if (!jbig_strip_fits(strip, wanted)) {
        return UINT64_MAX;
    }
    return static_cast<uint64_t>(
        TIFFReadEncodedStrip(tiff_image, strip, bytes, static_cast<tmsize_t>(wanted)));
}

// Appends what the library gives of the strip, call by call. Bytes read.
uint64_t read_encoded_strip(uint64_t strip, unsigned char* bytes, uint64_t wanted)
{
    uint64_t got = 0;
    while (got < wanted) {
        const uint64_t left = wanted - got;
        const uint64_t n = read_some(static_cast<uint32_t>(strip), bytes + got, left);
        if (n == 0) {
            fputs("TIFFReadEncodedStrip() returned 0 prematurely\n", stderr);
            break;
        }
        if (n > left) {
            fputs("TIFFReadEncodedStrip() returned too many bytes\n", stderr);
            break;
        }
        got += n;
    }
    return got;
}

// The first `wanted` bytes of the strip, zeroes behind them. Bytes read.
uint64_t read_strip(strip_buffer* buffer, uint64_t strip, uint64_t wanted)
{
    if (buffer->strip == strip && wanted <= buffer->held) {
        memset(buffer->bytes + wanted, 0, buffer->held - wanted);
        buffer->held = wanted;
        return wanted;
    }
    // A codec may report success without having written everything.
    memset(buffer->bytes, 0, buffer->held);
    buffer->held = wanted;
    const uint64_t got = read_encoded_strip(strip, buffer->bytes, wanted);
    buffer->strip = got == wanted ? strip : no_strip;
    return got;
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

// The part of the given rows from column `x` on, where decoding draws nothing.
void blacken(const tiff_variant& variant, const band& mapped, uint64_t first, uint64_t last,
             uint64_t x)
{
    for (int i = 0; variant.starts_black && i < all_planes; ++i) {
        const frame_plane& plane = frame_planes[i];
        for (uint64_t y = first; mapped.base[i] != nullptr && y < last; ++y) {
            memset(mapped.base[i] + y * *plane.stride + x, plane.black, *plane.stride - x);
        }
    }
}

unsigned char* row_of(const band& mapped, int index, uint64_t y)
{
    unsigned char* base = mapped.base[index];
    return base == nullptr ? nullptr : base + y * *frame_planes[index].stride;
}

// Draws so many rows of the strip into the top of the band.
void draw_rows(const tiff_variant& variant, const strip_buffer& buffer, uint64_t rows, band* mapped)
{
    mapped->drawn = rows;
    const bool has_alpha = mapped->base[PLANE_A] != nullptr;
    const tiff_converter* converter = find_tiff_converter(variant.model, tiff_bps, has_alpha);
    if (converter == nullptr) {
        blacken(variant, *mapped, 0, rows, 0);
        return;
    }
    for (uint64_t y = 0; y < rows; ++y) {
        const tiff_row to = {row_of(*mapped, PLANE_Y, y), row_of(*mapped, PLANE_U, y),
                             row_of(*mapped, PLANE_V, y), row_of(*mapped, PLANE_A, y)};
        convert_tiff_row(*converter, buffer.bytes + y * tiff_bytes_per_row, tiff_width, to);
    }
    const uint64_t written = (tiff_width + converter->unit - 1) / converter->unit * converter->unit;
    blacken(variant, *mapped, 0, rows, written);
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
    draw_rows(variant, *buffer, rows, mapped);
    return rows;
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
