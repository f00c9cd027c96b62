// The whole run of a WebP: examination, layout, decoding, mipmaps, clean-up. It ends with a refusal
// or a picture. No file stays open. The planes must equal what the library draws on black.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bin/decode/webp.h"
#include "bin/examine/image_state.h"
#include "bin/examine/webp.h"
#include "bin/framebuffer/layout.h"
#include "fuzz/picture_run.h"
#include "tests/support/scripted_platform.h"

namespace {

void blacken(std::vector<uint8_t>& area, uint64_t offset, uint64_t size, int black)
{
    memset(area.data() + offset, black, size);
}

void repeat_row(std::vector<uint8_t>& area, uint64_t offset, uint64_t stride, uint64_t row)
{
    const uint64_t rows = static_cast<uint64_t>(image_buffer_height) / 2;
    uint8_t* plane = area.data() + offset;
    for (uint64_t y = row + 1; y < rows; ++y) {
        memcpy(plane + y * stride, plane + row * stride, stride);
    }
}

// The expected full-size planes: black, drawn over, with the last chroma row repeated.
std::vector<uint8_t> planes_on_black(const uint8_t* data, size_t size)
{
    std::vector<uint8_t> area(image_scanline_data_buffer_offset);
    const auto height = static_cast<uint64_t>(image_height);
    const auto rows = static_cast<uint64_t>(image_buffer_height);
    blacken(area, image_offset_Y, height * image_stride_Y, 16);
    blacken(area, image_offset_U, rows / 2 * image_stride_U, 128);
    blacken(area, image_offset_V, rows / 2 * image_stride_V, 128);
    WebPDecoderConfig config;
    require(WebPInitDecoderConfig(&config) != 0);
    config.output.colorspace = MODE_YUV;
    config.output.is_external_memory = 1;
    const auto luma_stride = static_cast<int>(image_stride_Y);
    const auto chroma_stride = static_cast<int>(image_stride_U);
    config.output.u.YUVA = {area.data() + image_offset_Y,
                            area.data() + image_offset_U,
                            area.data() + image_offset_V,
                            nullptr,
                            luma_stride,
                            chroma_stride,
                            chroma_stride,
                            0,
                            rows * image_stride_Y,
                            rows / 2 * image_stride_U,
                            rows / 2 * image_stride_V,
                            0};
    if (image_has_alpha_channel != 0) {
        blacken(area, image_offset_A, height * image_stride_A, 16);
        config.output.colorspace = MODE_YUVA;
        config.output.u.YUVA.a = area.data() + image_offset_A;
        config.output.u.YUVA.a_stride = luma_stride;
        config.output.u.YUVA.a_size = rows * image_stride_A;
    }
    WebPDecode(data, size, &config);
    repeat_row(area, image_offset_U, image_stride_U, (height - 1) / 2);
    repeat_row(area, image_offset_V, image_stride_V, (height - 1) / 2);
    return area;
}

void run_picture(const uint8_t* data, size_t size)
{
    if (examine_webp_file() != 0) {
        require(webp_image == nullptr);
        return;
    }
    if (static_cast<int64_t>(image_width) * image_height > max_pixels) {
        return;
    }
    lay_out();
    allocate_buffer();
    const std::vector<uint8_t> expected = planes_on_black(data, size);
    require(full_decode_webp_yuv() == 0);
    require(webp_image == nullptr);
    require(scripted::log.status.size() == 1 && scripted::log.status[0].percent == 100);
    require(memcmp(scripted::buffer(), expected.data(), expected.size()) == 0);
    build_mipmaps();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    reset_webp();
    reset_everything();
    set_input(data, size, 0);
    run_picture(data, size);
    free_all_webp();
    free_all_webp();
    require(webp_image == nullptr && !webp_deccfg_init);
    reset_webp();
    reset_everything();
    return 0;
}
