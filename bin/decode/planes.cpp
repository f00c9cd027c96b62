#include "bin/decode/planes.h"

#include <cstdio>
#include <cstring>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "platform/cnb.h"

const frame_plane frame_planes[plane_count] = {
    {&image_offset_Y, &image_stride_Y, nullptr, "Failed to memory-map Y plane\n"},
    {&image_offset_U, &image_stride_U, &image_chroma_y_shift, "Failed to memory-map U plane\n"},
    {&image_offset_V, &image_stride_V, &image_chroma_y_shift, "Failed to memory-map V plane\n"},
    {&image_offset_A, &image_stride_A, nullptr, "Failed to memory-map A plane\n"},
};

uint64_t plane_rows(int plane, uint64_t luma_rows)
{
    const uint8_t* shift = frame_planes[plane].row_shift;
    return shift == nullptr ? luma_rows : luma_rows >> *shift;
}

void check_full_size_chroma(const char* decoder)
{
    check_invariant(decoder, image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    check_invariant(decoder, image_chroma_x_shift == 0, "image_chroma_x_shift == 0");
    check_invariant(decoder, image_chroma_y_shift == 0, "image_chroma_y_shift == 0");
}

bool map_band(const band_request& request, plane_band* band)
{
    plane_band mapped = {};
    mapped.rows = request.rows;
    for (int i = 0; i < plane_count; ++i) {
        if ((request.planes & 1U << i) == 0) {
            continue;
        }
        const uint64_t stride = *frame_planes[i].stride;
        mapped.base[i] =
            vexa_global_access_cache_quickfetch(vexa_acc_cache, image_cnb_buffer,
                                                *frame_planes[i].offset + request.unit_start +
                                                    plane_rows(i, request.first_row) * stride,
                                                plane_rows(i, request.rows) * stride, access_write);
        if (mapped.base[i] == nullptr) {
            const int named = i == PLANE_A ? request.named_for_a : i;
            fputs(frame_planes[named].map_failure, stderr);
            return false;
        }
    }
    *band = mapped;
    return true;
}

sample_planes samples_at(const plane_band& band, uint64_t luma_row)
{
    plane_band at = band;
    for (int i = 0; i < plane_count; ++i) {
        if (at.base[i] != nullptr) {
            at.base[i] += plane_rows(i, luma_row) * *frame_planes[i].stride;
        }
    }
    return {at.base[PLANE_Y], at.base[PLANE_U], at.base[PLANE_V], at.base[PLANE_A]};
}

void blacken_plane(const plane_band& band, int plane, const plane_area& area,
                   const plane_samples& black)
{
    unsigned char* const base = band.base[plane];
    const uint64_t stride = *frame_planes[plane].stride;
    const auto index = static_cast<size_t>(plane);
    if (base == nullptr || area.column >= stride) {
        return;
    }
    if (area.column == 0) {
        memset(base + area.first * stride, black[index], (area.last - area.first) * stride);
        return;
    }
    for (uint64_t row = area.first; row < area.last; ++row) {
        memset(base + row * stride + area.column, black[index], stride - area.column);
    }
}

void blacken_undrawn(const plane_band& band, const plane_samples& black)
{
    for (int i = 0; i < plane_count; ++i) {
        blacken_plane(band, i, {plane_rows(i, band.drawn), plane_rows(i, band.rows)}, black);
    }
}
