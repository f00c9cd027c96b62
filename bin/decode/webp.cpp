// By rule the visible rows are black before the library draws over them. Of a good picture the
// library leaves nothing but the stride padding untouched, so that is all that is painted then, and
// afterwards. Only a picture that fails gets the black in full, and is drawn once more on top: the
// library draws the same rows again.
//
// Chroma rows below the picture repeat its last one, since the filter that makes the reduced levels
// reads them: whatever else lay there would tint the bottom of each level.
#include "bin/decode/webp.h"

#include <cstdio>
#include <cstring>

#include "bin/decode/planes.h"
#include "bin/examine/image_state.h"
#include "bin/examine/webp.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "platform/media_item.h"

namespace {

// Kept as is: alpha starts with the byte of black luma, and its failure is told as V's.
const frame_plane alpha_plane = {&image_offset_A, &image_stride_A, nullptr, 16,
                                 "Failed to memory-map V plane\n"};

const frame_plane* const drawn_planes[] = {&frame_planes[PLANE_Y], &frame_planes[PLANE_U],
                                           &frame_planes[PLANE_V], &alpha_plane};

struct picture_planes {
    int count; // 4 with alpha
    unsigned char* base[4];
};

bool map_planes(picture_planes* planes)
{
    planes->count = image_has_alpha_channel != 0 ? 4 : 3;
    for (int i = 0; i < planes->count; ++i) {
        planes->base[i] =
            map_plane_rows(*drawn_planes[i], 0, static_cast<uint64_t>(image_buffer_height));
        if (planes->base[i] == nullptr) {
            return false;
        }
    }
    return true;
}

size_t plane_size(const frame_plane& plane)
{
    return plane_rows(plane, static_cast<uint64_t>(image_buffer_height)) * *plane.stride;
}

// Samples that the library draws of so many pixels.
uint64_t drawn_samples(const frame_plane& plane, int pixels)
{
    const auto count = static_cast<uint64_t>(pixels);
    return plane.row_shift == nullptr ? count : (count + 1) / 2;
}

void fill_padding(const picture_planes& planes)
{
    for (int i = 0; i < planes.count; ++i) {
        const frame_plane& plane = *drawn_planes[i];
        const uint64_t drawn = drawn_samples(plane, image_width);
        const uint64_t padding = *plane.stride - drawn;
        const uint64_t rows = padding != 0 ? drawn_samples(plane, image_height) : 0;
        for (uint64_t y = 0; y < rows; ++y) {
            memset(planes.base[i] + y * *plane.stride + drawn, plane.black, padding);
        }
    }
}

void fill_visible_rows(const picture_planes& planes)
{
    for (int i = 0; i < planes.count; ++i) {
        const frame_plane& plane = *drawn_planes[i];
        memset(planes.base[i], plane.black, drawn_samples(plane, image_height) * *plane.stride);
    }
}

void repeat_last_chroma_row(const picture_planes& planes)
{
    for (const int i : {PLANE_U, PLANE_V}) {
        const frame_plane& plane = *drawn_planes[i];
        const uint64_t stride = *plane.stride;
        const uint64_t below = drawn_samples(plane, image_height);
        const unsigned char* last = planes.base[i] + (below - 1) * stride;
        const uint64_t rows = plane_rows(plane, static_cast<uint64_t>(image_buffer_height));
        for (uint64_t y = below; y < rows; ++y) {
            memcpy(planes.base[i] + y * stride, last, stride);
        }
    }
}

void direct_output(const picture_planes& planes, WebPDecBuffer* output)
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
    yuva.y_size = plane_size(frame_planes[PLANE_Y]);
    yuva.u_size = plane_size(frame_planes[PLANE_U]);
    yuva.v_size = plane_size(frame_planes[PLANE_V]);
    yuva.a_size = plane_size(alpha_plane);
}

VP8StatusCode draw(const picture_planes& planes)
{
    webp_deccfg.input = webp_bf_features;
    direct_output(planes, &webp_deccfg.output);
    return WebPDecode(webp_image, webp_size, &webp_deccfg);
}

VP8StatusCode draw_on_black(const picture_planes& planes)
{
    const VP8StatusCode status = draw(planes);
    if (status == VP8_STATUS_OK) {
        fill_padding(planes);
        return status;
    }
    fill_visible_rows(planes);
    return DIE4 == 0 ? draw(planes) : status;
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
    picture_planes planes = {};
    if (!map_planes(&planes)) {
        return give_up();
    }
    if (draw_on_black(planes) == VP8_STATUS_OK) {
        fputs("WebP decoded\n", stderr);
    } else {
        fputs("WARNING: Failed to decode WebP image\n", stderr);
    }
    repeat_last_chroma_row(planes);
    vexa_status_write(100, "");
    free_all_webp_raw();
    return 0;
}
