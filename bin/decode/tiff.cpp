// One strip loop for all colour models; what differs between them is a row of a table.
//
// For each pass a band is mapped at the next row, and one strip is read from its start. By rule the
// whole band is black before the strip is drawn into its top. The passes that follow overwrite the
// rest of it, so black is painted only where it stays: in the stride padding, in rows whose samples
// are not drawn, and, when the loop ends, below the last drawn row.
//
// Kept as is: a strip taller than the band is read from its start again by the next pass, so its
// first rows repeat.
#include "bin/decode/tiff.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "bin/decode/pace.h"
#include "bin/decode/planes.h"
#include "bin/decode/tiff_rows.h"
#include "bin/decode/tiff_strip_reader.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/run_state.h"
#include "platform/status.h"

namespace {

constexpr uint32_t large_strip = 16777216; // bytes; above, a warning is printed

struct tiff_variant {
    const char* name; // of the decoder, for invariants
    tiff_model model;
    uint64_t band_rows;      // mapped for a pass
    unsigned planes;         // that it draws; A only when the picture has alpha
    bool starts_black;       // mapped rows that are not drawn become black and opaque
    plane_index named_for_a; // the plane that the message names when A cannot be mapped
};

// clang-format off
// Kept as is: two of the decoders name V when A cannot be mapped.
//
//     decoder                     model           band  planes                 black  named for A
constexpr tiff_variant rgb =
    {"full_decode_tiff_rgb",       TIFF_RGB,       2048, planes_yuv | planes_a, true,  PLANE_V};
constexpr tiff_variant grayscale =
    {"full_decode_tiff_grayscale", TIFF_GRAYSCALE, 64,   planes_y | planes_a,   true,  PLANE_A};
constexpr tiff_variant ycbcr =
    {"full_decode_tiff_ycbcr",     TIFF_YCBCR,     2048, planes_yuv | planes_a, false, PLANE_V};
constexpr tiff_variant cmyk =
    {"full_decode_tiff_cmyk",      TIFF_CMYK,      64,   planes_yuv | planes_a, true,  PLANE_A};
constexpr tiff_variant palette =
    {"full_decode_tiff_palette",   TIFF_PALETTE,   2048, planes_yuv,            true,  PLANE_A};
// clang-format on

unsigned drawn_planes(const tiff_variant& variant)
{
    return image_has_alpha_channel != 0 ? variant.planes : variant.planes & ~planes_a;
}

// Null when rows of the picture are not drawn.
const tiff_converter* converter_for(const tiff_variant& variant)
{
    return find_tiff_converter(variant.model, tiff_bps, (drawn_planes(variant) & planes_a) != 0);
}

// --- the band -----------------------------------------------------------------------------------

// Blackens rows `first` to `last` - 1 from column `x` on, where decoding draws nothing. Returns the
// row after the last one that is done: `last`, or an earlier one in a large band when a signal
// arrives.
uint64_t blacken(const tiff_variant& variant, const plane_band& band, uint64_t first, uint64_t last,
                 uint64_t x)
{
    constexpr uint64_t samples_per_piece = uint64_t{1} << 25; // some ten milliseconds
    work_pace pace = {samples_per_piece};
    if (!variant.starts_black) {
        return last;
    }
    const auto mapped = static_cast<uint64_t>(
        plane_count - std::count(std::begin(band.base), std::end(band.base), nullptr));
    uint64_t y = first;
    for (bool goes_on = true; goes_on && y < last; ++y) {
        for (int i = 0; i < plane_count; ++i) {
            blacken_plane(band, i, {y, y + 1, x});
        }
        goes_on = keep_pace(&pace, (image_stride_Y - x) * mapped);
    }
    return y;
}

// Draws `rows` rows of the strip into the top of the band, fewer when a signal arrives.
void draw_rows(const tiff_converter& converter, const strip_buffer& buffer, uint64_t rows,
               plane_band* band)
{
    constexpr uint64_t pixels_per_piece = uint64_t{1} << 21; // some milliseconds
    work_pace pace = {pixels_per_piece};
    bool goes_on = true;
    for (uint64_t y = 0; goes_on && y < rows; ++y) {
        convert_tiff_row(converter, buffer.bytes + y * tiff_bytes_per_row, tiff_width,
                         samples_at(*band, y));
        band->drawn = y + 1;
        goes_on = keep_pace(&pace, tiff_width);
    }
}

// The same, with the black around the pixels.
void draw_band(const tiff_variant& variant, const strip_buffer& buffer, uint64_t rows,
               plane_band* band)
{
    const tiff_converter* converter = converter_for(variant);
    if (converter == nullptr) {
        band->drawn = blacken(variant, *band, 0, rows, 0);
        return;
    }
    draw_rows(*converter, buffer, rows, band);
    const uint64_t written = (tiff_width + converter->unit - 1) / converter->unit * converter->unit;
    blacken(variant, *band, 0, band->drawn, written);
}

// --- the loop -----------------------------------------------------------------------------------

uint64_t bytes_to_read(const tiff_variant& variant, uint64_t rows)
{
    uint64_t rem = std::min<uint64_t>(rows, tiff_stripheight) * tiff_bytes_per_row;
    if (rem > tiff_stripsize) {
        fputs("WARNING: bytes for reading strip exceed recommended stripsize\n", stderr);
        rem = tiff_stripsize;
    }
    check_invariant(variant.name, rem > 0, "rem > 0u");
    check_invariant(variant.name, rem <= tiff_stripsize, "rem <= tiff_stripsize");
    return rem;
}

// Draws one strip at `row` and returns the rows that it gave; 0 when the loop has to stop. *band is
// the last band that was mapped.
uint64_t draw_strip(const tiff_variant& variant, strip_buffer* buffer, uint64_t row,
                    plane_band* band)
{
    const auto height = static_cast<uint64_t>(image_height);
    vexa_status_write(static_cast<int>(row * 100 / height), "Decoding TIFF");
    quickidle_comm();
    if (!map_band({.planes = drawn_planes(variant),
                   .first_row = row,
                   .rows = std::min(variant.band_rows, height - row),
                   .named_for_a = variant.named_for_a},
                  band)) {
        return 0;
    }
    const uint64_t wanted = bytes_to_read(variant, band->rows);
    const uint64_t got = read_strip(buffer, row / tiff_stripheight, wanted);
    const uint64_t rows = got / tiff_bytes_per_row;
    draw_band(variant, *buffer, rows, band);
    return rows;
}

void draw_all_strips(const tiff_variant& variant, strip_buffer* buffer)
{
    const auto height = static_cast<uint64_t>(image_height);
    uint64_t row = 0;
    plane_band band = {};
    while (DIE4 == 0 && row < height) {
        const uint64_t rows = draw_strip(variant, buffer, row, &band);
        if (rows == 0) {
            break;
        }
        row += rows;
    }
    blacken(variant, band, band.drawn, band.rows, 0);
    vexa_status_write(100, "");
}

// --- preparation --------------------------------------------------------------------------------

void check_examination(const char* decoder)
{
    check_invariant(decoder, tiff_bps != 0, "tiff_bps != 0");
    check_invariant(decoder, tiff_spp != 0, "tiff_spp != 0");
    check_invariant(decoder, tiff_strips != 0, "tiff_strips != 0");
    check_invariant(decoder, tiff_stripsize != 0, "tiff_stripsize != 0");
    check_invariant(decoder, tiff_stripheight != 0, "tiff_stripheight != 0");
    check_invariant(decoder, tiff_width != 0, "tiff_width != 0");
    check_invariant(decoder, tiff_height != 0, "tiff_height != 0");
    check_invariant(decoder, tiff_bytes_per_row != 0, "tiff_bytes_per_row != 0");
    check_full_size_chroma(decoder);
}

void warn_of_large_strips()
{
    if (tiff_stripsize > large_strip) {
        fputs(
            "WARNING: TIFF uses large strip size. This is known to cause decoding bugs in libtiff "
            "that may cause display problems.\n"
            "         Consider re-saving the image in a program that subdivides the image "
            "correctly.\n"
            "         This message can appear for large TIFFs converted by ImageMagick.\n",
            stderr);
    }
}

// Room for the rows that one pass can request.
bool allocate_strip(const tiff_variant& variant, strip_buffer* buffer)
{
    const uint64_t rows = std::min({variant.band_rows, static_cast<uint64_t>(tiff_stripheight),
                                    static_cast<uint64_t>(image_height)});
    return allocate_strip_buffer(buffer, rows, converter_for(variant) != nullptr);
}

// What the converter needs besides the samples.
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

// Reads and draws every strip and reports progress. Returns -1, with a message, when there is no
// memory for a strip or no palette. Returns 0 otherwise, also when the loop stopped early (the
// reason is printed, none for DIE4).
int decode_tiff(const tiff_variant& variant)
{
    check_examination(variant.name);
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

} // namespace

int full_decode_tiff_rgb()
{
    return decode_tiff(rgb);
}

int full_decode_tiff_grayscale()
{
    return decode_tiff(grayscale);
}

int full_decode_tiff_cmyk()
{
    return decode_tiff(cmyk);
}

int full_decode_tiff_palette()
{
    return decode_tiff(palette);
}

void full_decode_tiff_ycbcr()
{
    if (decode_tiff(ycbcr) != 0) {
        fputs("WARNING: Failed to decode TIFF\n", stderr);
    }
}
