// One row loop for all colour types; what differs between them is a row of a table.
//
// By rule a batch is black before its rows are read, and 64 rows are read before the first is
// converted. Here a few rows at a time pass through the same staging rows, and black is painted
// only when the library fails; the planes end with the same bytes.
//
// The library may jump out of png_read_rows. read_armed arms the jump, calls read_batches and
// handles the jump; no frame from there down holds an object with a destructor. The current batch,
// which is needed after a jump, lives in the caller's frame.
#include "bin/decode/png.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>

#include <png.h>

#include "bin/decode/colour_rows.h"
#include "bin/decode/planes.h"
#include "bin/decode/png_palette.h"
#include "bin/decode/rescale.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/examine/png_input.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/run_state.h"
#include "platform/status.h"

namespace {

constexpr uint64_t staged_batch = 64;
constexpr uint64_t in_place_batch = 128;
constexpr uint64_t near_rows = 4; // 256 KiB with the largest pixels and the largest width
constexpr uint64_t max_batch_rows = 128;
static_assert(staged_batch <= max_batch_rows && in_place_batch <= max_batch_rows);

constexpr size_t spare_bytes = 64; // behind the staging rows

struct png_variant {
    const char* name; // of the decoder, for invariants

    // The host's status when the picture is interlaced: another decoder reads those, but one may
    // still be passed here. Null: interlacing breaks an invariant.
    const char* adam7_status;
    const char* other_status; // the same for methods that do not exist; null: no status

    unsigned planes;     // that it draws
    uint64_t batch_rows; // mapped, and reported to the host, at a time
    uint64_t group_rows; // converted at a time; a few rows stay in the near cache
    bool blackens;       // a batch interrupted by a library error becomes black and opaque

    size_t pixel_bytes; // in a staging row; 0: rows are read straight into the Y plane
    colour_run convert; // stride padding included; gets the Y plane when there are no staging rows
};

// The library leaves the padding columns as they were, so their values may exceed the depth; only
// the low byte of the product is kept.
void scale_to_8_bits(unsigned char* samples, size_t count, unsigned depth)
{
    const unsigned max_sample = (1U << depth) - 1;
    unsigned char scaled[256];
    for (unsigned sample = 0; sample < 256; ++sample) {
        scaled[sample] = static_cast<unsigned char>(sample * 255 / max_sample);
    }
    for (size_t i = 0; i < count; ++i) {
        samples[i] = scaled[samples[i]];
    }
}

void convert_grey_in_place(const unsigned char* /*grey*/, size_t count, const sample_planes& to)
{
    if (png_bit_depth < 8) {
        scale_to_8_bits(to.y, count, static_cast<unsigned>(png_bit_depth));
    }
    jpeg_rescale_luma_to_16_235(to.y, count);
}

constexpr png_variant rgb = {
    .name = "full_decode_png_rgb",
    .adam7_status = nullptr,
    .other_status = nullptr,
    .planes = planes_yuv,
    .batch_rows = staged_batch,
    .group_rows = near_rows,
    .blackens = true,
    .pixel_bytes = 3,
    .convert = rgb_to_planes,
};

constexpr png_variant rgba = {
    .name = "full_decode_png_rgba",
    .adam7_status = "ADAM7 interlace not supported [rgba]",
    .other_status = nullptr,
    .planes = planes_yuv | planes_a,
    .batch_rows = staged_batch,
    .group_rows = near_rows,
    .blackens = true,
    .pixel_bytes = 4,
    .convert = rgba_to_planes,
};

// A damaged batch stays as the library left it, with samples as they were read, not scaled.
constexpr png_variant grey = {
    .name = "full_decode_png_grayscale",
    .adam7_status = "ADAM7 interlace not supported [gray]",
    .other_status = nullptr,
    .planes = planes_y,
    .batch_rows = in_place_batch,
    .group_rows = in_place_batch,
    .blackens = false,
    .pixel_bytes = 0,
    .convert = convert_grey_in_place,
};

// A damaged batch stays as it was before, so a batch is read whole before it is converted.
constexpr png_variant grey_alpha = {
    .name = "full_decode_png_grayscale_alpha",
    .adam7_status = "ADAM7 interlace not supported",
    .other_status = "Unsupported interlace pattern",
    .planes = planes_y | planes_a,
    .batch_rows = staged_batch,
    .group_rows = staged_batch,
    .blackens = false,
    .pixel_bytes = 2,
    .convert = grey_alpha_to_planes,
};

constexpr png_variant palette = {
    .name = "full_decode_png_palette",
    .adam7_status = "ADAM7 interlace not supported [pal]",
    .other_status = nullptr,
    .planes = planes_yuv,
    .batch_rows = staged_batch,
    .group_rows = near_rows,
    .blackens = true,
    .pixel_bytes = 1,
    .convert = palette_to_planes,
};

// 0, or -1 with the reader closed.
int refuse_interlaced(const png_variant& variant)
{
    if (variant.adam7_status == nullptr) {
        check_invariant(variant.name, png_interlace_method == 0, "png_interlace_method == 0");
    }
    if (png_interlace_method == 0) {
        return 0;
    }
    if (png_interlace_method == 1) {
        vexa_status_write(-1, variant.adam7_status);
        fputs("ADAM7 interlace not supported in this decode\n", stderr);
    } else {
        if (variant.other_status != nullptr) {
            vexa_status_write(-1, variant.other_status);
        }
        fputs("Unsupported interlace pattern\n", stderr);
    }
    free_all_png_fileio();
    return -1;
}

// Zeroed, because the padding columns are converted too and the library never writes them. 0, or -1
// with the reader closed.
int allocate_staging(const png_variant& variant, unsigned char** staging)
{
    *staging = nullptr;
    if (variant.pixel_bytes == 0) {
        return 0;
    }
    const size_t size = variant.group_rows * image_stride_Y * variant.pixel_bytes + spare_bytes;
    *staging = static_cast<unsigned char*>(calloc(size, 1));
    if (*staging == nullptr) {
        fputs("Unable to allocate RGB row\n", stderr);
        free_all_png_fileio();
        return -1;
    }
    return 0;
}

// Reads and converts `rows` rows from row `first` of the batch on.
void read_group(const png_variant& variant, unsigned char* staging, const plane_band& batch,
                uint64_t first, uint64_t rows)
{
    const sample_planes to = samples_at(batch, first);
    unsigned char* base = staging == nullptr ? to.y : staging;
    const size_t pitch = image_stride_Y * (staging == nullptr ? 1 : variant.pixel_bytes);
    png_bytep pointers[max_batch_rows];
    for (uint64_t i = 0; i < rows; ++i) {
        pointers[i] = base + i * pitch;
    }
    png_read_rows(png_context, pointers, nullptr, static_cast<png_uint_32>(rows));
    variant.convert(base, rows * image_stride_Y, to);
}

void read_batches(const png_variant& variant, unsigned char* staging, plane_band* batch)
{
    const auto height = static_cast<uint64_t>(image_height);
    uint64_t row = 0;
    while (DIE4 == 0 && row < height) {
        vexa_status_write(static_cast<int>(row * 100 / height), "Decoding PNG");
        quickidle_comm();
        const uint64_t rows = std::min(height - row, variant.batch_rows);
        check_invariant(variant.name, rows != 0, "ys != 0u");
        if (!map_band({.planes = variant.planes, .first_row = row, .rows = rows}, batch)) {
            return;
        }
        for (uint64_t first = 0; first < rows; first += variant.group_rows) {
            read_group(variant, staging, *batch, first, std::min(rows - first, variant.group_rows));
        }
        row += rows;
    }
}

// False when the library jumped; *batch is then the batch that it was reading.
bool read_armed(const png_variant& variant, unsigned char* staging, plane_band* batch)
{
    if (setjmp(png_jmpbuf(png_context)) != 0) {
        png_abort_unexpected();
        return false;
    }
    read_batches(variant, staging, batch);
    png_abort_unexpected();
    return true;
}

// Reads and converts the open picture and reports progress. Returns -1, with the reader closed,
// when the picture is interlaced or there is no memory. Returns 0 otherwise, also when the loop
// stopped early (the reason is printed, none for DIE4).
int decode_png(const png_variant& variant)
{
    unsigned char* staging = nullptr;
    if (refuse_interlaced(variant) != 0 || allocate_staging(variant, &staging) != 0) {
        return -1;
    }
    check_full_size_chroma(variant.name);
    check_invariant(variant.name, (variant.planes & planes_a) == 0 || image_stride_A != 0,
                    "image_stride_A != 0");
    plane_band batch = {};
    if (!read_armed(variant, staging, &batch)) {
        if (!png_input_was_stopped()) {
            fputs("Unexpected PNG error while reading, aborting decode\n", stderr);
        }
        if (variant.blackens) {
            blacken_undrawn(batch);
        }
    }
    vexa_status_write(100, "");
    free(staging);
    return 0;
}

} // namespace

int full_decode_png_rgb()
{
    return decode_png(rgb);
}

int full_decode_png_rgba()
{
    return decode_png(rgba);
}

int full_decode_png_grayscale()
{
    return decode_png(grey);
}

int full_decode_png_grayscale_alpha()
{
    return decode_png(grey_alpha);
}

int full_decode_png_palette()
{
    return prepare_png_palette(palette.name) == 0 ? decode_png(palette) : -1;
}
