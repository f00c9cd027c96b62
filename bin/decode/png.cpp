#include "bin/decode/png.h"

#include "bin/decode/colour_rows.h"
#include "bin/decode/png_palette.h"
#include "bin/decode/png_rows.h"
#include "bin/decode/rescale.h"
#include "bin/examine/png.h"

namespace {

constexpr uint64_t staged_batch = 64;
constexpr uint64_t in_place_batch = 128;
constexpr uint64_t near_rows = 4; // of the largest pixels and the largest width: 256 KiB

// In video range, by index. Written by full_decode_png_palette before its rows are read.
packed_yuva palette_colours[256];

void convert_rgb(const unsigned char* staging, unsigned char* const planes[4], size_t count)
{
    rgb_to_planes(staging, count, planes[PLANE_Y], planes[PLANE_U], planes[PLANE_V]);
}

void convert_rgba(const unsigned char* staging, unsigned char* const planes[4], size_t count)
{
    rgba_to_planes(staging, count, planes[PLANE_Y], planes[PLANE_U], planes[PLANE_V],
                   planes[PLANE_A]);
}

// The padding columns hold what was there before, and may leave 8 bits; the low byte counts.
void scale_to_8_bits(unsigned char* samples, size_t count, unsigned depth)
{
    const unsigned largest = (1U << depth) - 1;
    unsigned char scaled[256];
    for (unsigned sample = 0; sample < 256; ++sample) {
        scaled[sample] = static_cast<unsigned char>(sample * 255 / largest);
    }
    for (size_t i = 0; i < count; ++i) {
        samples[i] = scaled[samples[i]];
    }
}

void convert_grey(const unsigned char* /*staging*/, unsigned char* const planes[4], size_t count)
{
    unsigned char* samples = planes[PLANE_Y];
    if (png_bit_depth < 8) {
        scale_to_8_bits(samples, count, static_cast<unsigned>(png_bit_depth));
    }
    jpeg_rescale_luma_to_16_235(samples, count);
}

void convert_grey_alpha(const unsigned char* staging, unsigned char* const planes[4], size_t count)
{
    grey_alpha_to_planes(staging, count, planes[PLANE_Y], planes[PLANE_A]);
}

void convert_palette(const unsigned char* staging, unsigned char* const planes[4], size_t count)
{
    constexpr size_t most_run = 1024;
    packed_yuva run[most_run];
    for (size_t first = 0; first < count; first += most_run) {
        const size_t length = count - first < most_run ? count - first : most_run;
        for (size_t i = 0; i < length; ++i) {
            run[i] = palette_colours[staging[first + i]];
        }
        split_yuva(run, length, planes[PLANE_Y] + first, planes[PLANE_U] + first,
                   planes[PLANE_V] + first, nullptr);
    }
}

constexpr png_variant rgb = {
    .name = "full_decode_png_rgb",
    .interlace = {},
    .draws = {true, true, true, false},
    .batch_rows = staged_batch,
    .group_rows = near_rows,
    .blackens = true,
    .pixel_bytes = 3,
    .convert = convert_rgb,
};

constexpr png_variant rgba = {
    .name = "full_decode_png_rgba",
    .interlace = {"ADAM7 interlace not supported [rgba]", nullptr},
    .draws = {true, true, true, true},
    .batch_rows = staged_batch,
    .group_rows = near_rows,
    .blackens = true,
    .pixel_bytes = 4,
    .convert = convert_rgba,
};

// A damaged batch stays as the library left it: samples as they came, not scaled.
constexpr png_variant grey = {
    .name = "full_decode_png_grayscale",
    .interlace = {"ADAM7 interlace not supported [gray]", nullptr},
    .draws = {true, false, false, false},
    .batch_rows = in_place_batch,
    .group_rows = in_place_batch,
    .blackens = false,
    .pixel_bytes = 0,
    .convert = convert_grey,
};

constexpr png_variant grey_alpha = {
    .name = "full_decode_png_grayscale_alpha",
    .interlace = {"ADAM7 interlace not supported", "Unsupported interlace pattern"},
    .draws = {true, false, false, true},
    .batch_rows = staged_batch,
    .group_rows = staged_batch,
    .blackens = false,
    .pixel_bytes = 2,
    .convert = convert_grey_alpha,
};

constexpr png_variant palette = {
    .name = "full_decode_png_palette",
    .interlace = {"ADAM7 interlace not supported [pal]", nullptr},
    .draws = {true, true, true, false},
    .batch_rows = staged_batch,
    .group_rows = near_rows,
    .blackens = true,
    .pixel_bytes = 1,
    .convert = convert_palette,
};

static_assert(staged_batch <= most_png_batch_rows && in_place_batch <= most_png_batch_rows);

} // namespace

int full_decode_png_rgb()
{
    return decode_png_rows(rgb);
}

int full_decode_png_rgba()
{
    return decode_png_rows(rgba);
}

int full_decode_png_grayscale()
{
    return decode_png_rows(grey);
}

int full_decode_png_grayscale_alpha()
{
    return decode_png_rows(grey_alpha);
}

int full_decode_png_palette()
{
    png_palette colours = {};
    if (fetch_png_palette(palette.name, &colours) != 0) {
        return -1;
    }
    convert_png_palette(colours, palette_colours);
    return decode_png_rows(palette);
}
