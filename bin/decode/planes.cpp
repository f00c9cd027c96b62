#include "bin/decode/planes.h"

#include <cstdio>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"
#include "platform/media_item.h"

const frame_plane frame_planes[4] = {
    {&image_offset_Y, &image_stride_Y, nullptr, 16, "Failed to memory-map Y plane\n"},
    {&image_offset_U, &image_stride_U, &image_chroma_y_shift, 128,
     "Failed to memory-map U plane\n"},
    {&image_offset_V, &image_stride_V, &image_chroma_y_shift, 128,
     "Failed to memory-map V plane\n"},
    {&image_offset_A, &image_stride_A, nullptr, 255, "Failed to memory-map A plane\n"},
};

uint64_t plane_rows(const frame_plane& plane, uint64_t luma_rows)
{
    return plane.row_shift == nullptr ? luma_rows : luma_rows >> *plane.row_shift;
}

unsigned char* map_plane_rows(const frame_plane& plane, uint64_t luma_row, uint64_t luma_rows,
                              uint32_t unit)
{
    const uint64_t offset = *plane.offset + unit + plane_rows(plane, luma_row) * *plane.stride;
    unsigned char* rows = vexa_global_access_cache_quickfetch(
        vexa_acc_cache, image_cnb_buffer, offset, plane_rows(plane, luma_rows) * *plane.stride,
        access_write);
    if (rows == nullptr) {
        fputs(plane.map_failure, stderr);
    }
    return rows;
}
