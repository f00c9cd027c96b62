// The whole run of a PNG: examination, layout, decoding, mipmaps, clean-up. It ends with a refusal
// or a picture. No file stays open. Without interlacing the planes must equal those of the literal
// decoder.
//
// Mutation does not find valid checksums, so those of inputs that end in an even byte, as complete
// files do, are corrected first. A last byte below 64 is the number of the idle round in which a
// signal arrives.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <zlib.h>

#include "bin/decode/png.h"
#include "bin/decode/png_adam7.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/framebuffer/layout.h"
#include "fuzz/picture_run.h"
#include "platform/run_state.h"
#include "tests/support/png_literal.h"
#include "tests/support/scripted_platform.h"

namespace {

constexpr int64_t pixel_limit = 1 << 18; // larger pictures only cost time
constexpr int signal_rounds = 64;

void correct_checksums(std::vector<uint8_t>* file)
{
    size_t chunk = 8;
    while (chunk + 12 <= file->size()) {
        const uint8_t* bytes = file->data() + chunk;
        const size_t length =
            size_t{bytes[0]} << 24 | size_t{bytes[1]} << 16 | size_t{bytes[2]} << 8 | bytes[3];
        if (length > file->size() - chunk - 12) {
            return;
        }
        const uLong sum = crc32(0, bytes + 4, static_cast<uInt>(length + 4));
        for (size_t i = 0; i < 4; ++i) {
            (*file)[chunk + 8 + length + i] = static_cast<uint8_t>(sum >> (24 - 8 * i));
        }
        chunk += length + 12;
    }
}

int decode_by_form()
{
    if (png_interlace_method == 1) {
        return full_decode_png_rgb_adam7();
    }
    switch (png_color_type) {
    case PNG_COLOR_TYPE_RGB:
        return full_decode_png_rgb();
    case PNG_COLOR_TYPE_RGB_ALPHA:
        return full_decode_png_rgba();
    case PNG_COLOR_TYPE_GRAY:
        return full_decode_png_grayscale();
    case PNG_COLOR_TYPE_GRAY_ALPHA:
        return full_decode_png_grayscale_alpha();
    default:
        return full_decode_png_palette();
    }
}

void expect_plain_planes(const std::vector<uint8_t>& file)
{
    const std::vector<uint8_t> expected = draw_png_literally(file);
    const auto area = static_cast<ptrdiff_t>(image_scanline_data_buffer_offset);
    require(std::equal(expected.begin(), expected.begin() + area, scripted::buffer()));
}

void run_picture(const std::vector<uint8_t>& file)
{
    if (examine_png_file() != 0) {
        require(png_fp == nullptr && png_context == nullptr && png_context_info == nullptr);
        return;
    }
    require(image_width >= 1 && image_width <= image_size_limit);
    require(image_height >= 1 && image_height <= image_size_limit);
    if (static_cast<int64_t>(image_width) * image_height > pixel_limit) {
        return;
    }
    lay_out();
    allocate_buffer();
    const bool is_interlaced = png_interlace_method != 0;
    require(decode_by_form() == 0);
    require(scripted::log.status.back() == scripted::status_line{100, ""});
    if (DIE4 != 0) {
        return;
    }
    if (!is_interlaced) {
        expect_plain_planes(file);
    }
    build_mipmaps();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    reset_everything();
    std::vector<uint8_t> file(data, data + size);
    if (size != 0 && data[size - 1] % 2 == 0) {
        correct_checksums(&file);
    }
    set_input(file.data(), file.size(), signal_rounds);
    run_picture(file);
    free_all_png_fileio();
    free_all_png_fileio();
    require(png_fp == nullptr && png_context == nullptr && png_context_info == nullptr);
    reset_everything();
    return 0;
}
