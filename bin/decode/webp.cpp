// By rule the visible rows are black before the library writes over them. Of a good picture the
// library leaves only the stride padding unwritten, so only the padding is painted, and afterwards.
// A picture that fails gets all of the black and is decoded once more on top of it: the library
// writes the same rows again.
//
// Chroma rows below the picture repeat its last one. The filter that makes the reduced levels reads
// them, and any other content would tint the bottom of each level.
#include "bin/decode/webp.h"

#include <cstdio>
#include <cstring>

#include "bin/decode/planes.h"
#include "bin/examine/image_state.h"
#include "bin/examine/webp.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "platform/run_state.h"
#include "platform/status.h"

namespace {

// Kept as is: A starts with the byte of black luma, and V is named when A cannot be mapped.
constexpr plane_samples black = {16, 128, 128, 16};

bool map_picture(plane_band* planes)
{
    return map_band({.planes = planes_yuv | (image_has_alpha_channel != 0 ? planes_a : 0),
                     .first_row = 0,
                     .rows = static_cast<uint64_t>(image_buffer_height),
                     .named_for_a = PLANE_V},
                    planes);
}

// Samples that the library writes for so many pixels.
uint64_t written_samples(int plane, int pixels)
{
    const auto count = static_cast<uint64_t>(pixels);
    return plane == PLANE_U || plane == PLANE_V ? (count + 1) / 2 : count;
}

void blacken_padding(const plane_band& planes)
{
    for (int i = 0; i < plane_count; ++i) {
        const plane_area padding = {0, written_samples(i, image_height),
                                    written_samples(i, image_width)};
        blacken_plane(planes, i, padding, black);
    }
}

void blacken_visible_rows(const plane_band& planes)
{
    for (int i = 0; i < plane_count; ++i) {
        blacken_plane(planes, i, {0, written_samples(i, image_height)}, black);
    }
}

void repeat_last_chroma_row(const plane_band& planes)
{
    for (const int i : {PLANE_U, PLANE_V}) {
        const uint64_t stride = *frame_planes[i].stride;
        const uint64_t below = written_samples(i, image_height);
        const unsigned char* last = planes.base[i] + (below - 1) * stride;
        const uint64_t rows = plane_rows(i, planes.rows);
        for (uint64_t y = below; y < rows; ++y) {
            memcpy(planes.base[i] + y * stride, last, stride);
        }
    }
}

// Bytes of a plane in the buffer; 0 when it is absent.
size_t plane_size(int plane)
{
    return plane_rows(plane, static_cast<uint64_t>(image_buffer_height)) *
           *frame_planes[plane].stride;
}

void direct_output(const plane_band& planes, WebPDecBuffer* output)
{
    output->colorspace = image_has_alpha_channel != 0 ? MODE_YUVA : MODE_YUV;
    output->width = image_width;
    output->height = image_height;
    output->is_external_memory = 1;
    WebPYUVABuffer& yuva = output->u.YUVA;
    yuva.y = planes.base[PLANE_Y];
    yuva.u = planes.base[PLANE_U];
    yuva.v = planes.base[PLANE_V];
    yuva.a = planes.base[PLANE_A];
    yuva.y_stride = static_cast<int>(image_stride_Y);
    yuva.u_stride = static_cast<int>(image_stride_U);
    yuva.v_stride = static_cast<int>(image_stride_V);
    yuva.a_stride = static_cast<int>(image_stride_A);
    yuva.y_size = plane_size(PLANE_Y);
    yuva.u_size = plane_size(PLANE_U);
    yuva.v_size = plane_size(PLANE_V);
    yuva.a_size = plane_size(PLANE_A);
}

VP8StatusCode decode(const plane_band& planes)
{
    webp_deccfg.input = webp_bf_features;
    direct_output(planes, &webp_deccfg.output);
    return WebPDecode(webp_image, webp_size, &webp_deccfg);
}

VP8StatusCode decode_on_black(const plane_band& planes)
{
    const VP8StatusCode status = decode(planes);
    if (status == VP8_STATUS_OK) {
        blacken_padding(planes);
        return status;
    }
    blacken_visible_rows(planes);
    return DIE4 == 0 ? decode(planes) : status;
}

int give_up()
{
    fputs("WARNING: Failed to decode WebP\n", stderr);
    free_all_webp_raw();
    return -1;
}

} // namespace

int full_decode_webp_yuv()
{
    INVARIANT(webp_image != nullptr, "webp_image != __null");
    INVARIANT(webp_size != 0, "webp_size != 0");
    if (WebPInitDecoderConfig(&webp_deccfg) == 0) {
        fputs("Failed to init WebP decoder\n", stderr);
        return give_up();
    }
    webp_deccfg_init = true;
    plane_band planes = {};
    if (!map_picture(&planes)) {
        return give_up();
    }
    if (decode_on_black(planes) == VP8_STATUS_OK) {
        fputs("WebP decoded\n", stderr);
    } else {
        fputs("WARNING: Failed to decode WebP image\n", stderr);
    }
    repeat_last_chroma_row(planes);
    vexa_status_write(100, "");
    free_all_webp_raw();
    return 0;
}
