#include "bin/decode/jpeg_raw.h"

#include <cstdio>

#include <jpeglib.h>

#include "bin/decode/jpeg_rows.h"
#include "bin/decode/rescale.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "platform/media_item.h"

namespace {

void rescale_luma(const jpeg_row_group& group)
{
    jpeg_rescale_luma_to_16_235(group.Y, group.rows * image_stride_Y);
}

void rescale_all(const jpeg_row_group& group)
{
    rescale_luma(group);
    jpeg_rescale_chroma_to_16_240(group.U, group.chroma_rows * image_stride_U);
    jpeg_rescale_chroma_to_16_240(group.V, group.chroma_rows * image_stride_V);
}

constexpr jpeg_variant yuv = {"full_decode_jpeg_raw_yuv", 3, 32, true, rescale_all};
constexpr jpeg_variant grayscale = {"full_decode_jpeg_raw_grayscale", 1, 64, false, rescale_luma};

} // namespace

int full_decode_jpeg_raw_yuv()
{
    INVARIANT(image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    INVARIANT(jpeg_decompress->num_components == 3, "jpeg_decompress->num_components == 3");
    const int group_chroma = most_jpeg_group_rows >> image_chroma_y_shift;
    INVARIANT((group_chroma << image_chroma_y_shift) == most_jpeg_group_rows,
              "(GROUP_chroma << image_chroma_y_shift) == 16");
    return decode_jpeg_rows(yuv, nullptr);
}

int full_decode_jpeg_raw_grayscale()
{
    INVARIANT(image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    INVARIANT(jpeg_decompress->num_components == 1, "jpeg_decompress->num_components == 1");
    return decode_jpeg_rows(grayscale, nullptr);
}
