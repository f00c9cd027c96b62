// By rule a batch is black before its rows are read, and 64 of them are read before the first is
// converted. Here a few rows at a time pass through the same staging rows, and the black is painted
// only when the library fails; the planes end with the same bytes.
//
// The library may jump out of png_read_rows. read_armed arms the jump, calls read_batches and looks
// at how it came back; no frame from there down holds an object with a destructor. What the caller
// has to know after a jump, the batch at hand, lives in the caller's frame.
#include "bin/decode/png_rows.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include <png.h>

#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/examine/png_input.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/media_item.h"

namespace {

constexpr size_t spare_bytes = 64; // behind the staging rows

// The mapped rows at the current position.
struct batch {
    unsigned char* planes[4]; // null for planes that are not drawn
    uint64_t rows;            // 0: nothing is being read
};
static_assert(std::is_trivially_destructible_v<batch>);

void check(const png_variant& variant, bool condition, const char* text)
{
    if (!condition) {
        invariant_failed(variant.name, text);
    }
}

// 0, or -1 with the reader closed.
int refuse_interlaced(const png_variant& variant)
{
    const png_interlace_refusal& refusal = variant.interlace;
    if (refusal.adam7_status == nullptr) {
        check(variant, png_interlace_method == 0, "png_interlace_method == 0");
    }
    if (png_interlace_method == 0) {
        return 0;
    }
    if (png_interlace_method == 1) {
        vexa_status_write(-1, refusal.adam7_status);
        fputs("ADAM7 interlace not supported in this decode\n", stderr);
    } else {
        if (refusal.other_status != nullptr) {
            vexa_status_write(-1, refusal.other_status);
        }
        fputs("Unsupported interlace pattern\n", stderr);
    }
    free_all_png_fileio();
    return -1;
}

// Zeroed: the padding columns are converted, too, and the library never writes them. 0, or -1 with
// the reader closed.
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

bool map_batch(const png_variant& variant, uint64_t row, uint64_t rows, batch* mapped)
{
    *mapped = {};
    check(variant, rows != 0, "ys != 0u");
    for (int i = 0; i < 4; ++i) {
        if (!variant.draws[i]) {
            continue;
        }
        mapped->planes[i] = map_plane_rows(frame_planes[i], row, rows);
        if (mapped->planes[i] == nullptr) {
            return false;
        }
    }
    mapped->rows = rows;
    return true;
}

// Reads and converts `rows` rows from row `first` of the batch on.
void read_group(const png_variant& variant, unsigned char* staging, const batch& mapped,
                uint64_t first, uint64_t rows)
{
    unsigned char* planes[4] = {};
    for (int i = 0; i < 4; ++i) {
        if (mapped.planes[i] != nullptr) {
            planes[i] = mapped.planes[i] + first * *frame_planes[i].stride;
        }
    }
    png_bytep pointers[most_png_batch_rows];
    unsigned char* base = staging == nullptr ? planes[PLANE_Y] : staging;
    const size_t pitch = image_stride_Y * (staging == nullptr ? 1 : variant.pixel_bytes);
    for (uint64_t i = 0; i < rows; ++i) {
        pointers[i] = base + i * pitch;
    }
    png_read_rows(png_context, pointers, nullptr, static_cast<png_uint_32>(rows));
    variant.convert(staging, planes, rows * image_stride_Y);
}

void read_batches(const png_variant& variant, unsigned char* staging, batch* mapped)
{
    const auto height = static_cast<uint64_t>(image_height);
    uint64_t row = 0;
    while (DIE4 == 0 && row < height) {
        vexa_status_write(static_cast<int>(row * 100 / height), "Decoding PNG");
        quickidle_comm();
        const uint64_t left = height - row;
        const uint64_t rows = left < variant.batch_rows ? left : variant.batch_rows;
        if (!map_batch(variant, row, rows, mapped)) {
            return;
        }
        for (uint64_t first = 0; first < rows; first += variant.group_rows) {
            const uint64_t behind = rows - first;
            read_group(variant, staging, *mapped, first,
                       behind < variant.group_rows ? behind : variant.group_rows);
        }
        mapped->rows = 0;
        row += rows;
    }
}

// False when the library was left before its time; *mapped is then the batch that it left.
bool read_armed(const png_variant& variant, unsigned char* staging, batch* mapped)
{
    if (setjmp(png_jmpbuf(png_context)) != 0) {
        png_abort_unexpected();
        return false;
    }
    read_batches(variant, staging, mapped);
    png_abort_unexpected();
    return true;
}

void blacken(const batch& mapped)
{
    for (int i = 0; i < 4; ++i) {
        if (mapped.planes[i] != nullptr) {
            memset(mapped.planes[i], frame_planes[i].black, mapped.rows * *frame_planes[i].stride);
        }
    }
}

} // namespace

int decode_png_rows(const png_variant& variant)
{
    unsigned char* staging = nullptr;
    if (refuse_interlaced(variant) != 0 || allocate_staging(variant, &staging) != 0) {
        return -1;
    }
    check(variant, image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    check(variant, image_chroma_x_shift == 0, "image_chroma_x_shift == 0");
    check(variant, image_chroma_y_shift == 0, "image_chroma_y_shift == 0");
    check(variant, !variant.draws[PLANE_A] || image_stride_A != 0, "image_stride_A != 0");
    batch mapped = {};
    if (!read_armed(variant, staging, &mapped)) {
        if (!png_input_was_stopped()) {
            fputs("Unexpected PNG error while reading, aborting decode\n", stderr);
        }
        if (variant.blackens) {
            blacken(mapped);
        }
    }
    vexa_status_write(100, "");
    free(staging);
    return 0;
}
