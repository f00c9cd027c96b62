#include "bin/decode/jpeg_four.h"

#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

#include "bin/decode/jpeg_four_kernels.h"
#include "bin/decode/jpeg_rows.h"
#include "bin/decode/rescale.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "platform/media_item.h"

namespace {

void convert_ycck(const jpeg_row_group& group)
{
    jpeg_ycck_to_yuv(group.Y, group.U, group.V, group.K, group.rows);
}

void convert_cmyk(const jpeg_row_group& group)
{
    cmyk_to_yuv(group.Y, group.U, group.V, group.K, group.rows * image_stride_Y);
}

constexpr jpeg_variant ycck = {"full_decode_jpeg_raw_ycck", 3, 32, false, convert_ycck};
constexpr jpeg_variant cmyk = {"full_decode_jpeg_raw_cmyk", 3, 32, false, convert_cmyk};

// Zeroed: what the library leaves out of it is folded into the picture's padding.
unsigned char* allocate_k_rows()
{
    auto* rows = static_cast<unsigned char*>(calloc(most_jpeg_group_rows, image_stride_Y));
    if (rows == nullptr) {
        fputs("Cannot alloc K channel\n", stderr);
    }
    return rows;
}

int decode_and_free(const jpeg_variant& variant, unsigned char* k_rows)
{
    const int result = decode_jpeg_rows(variant, k_rows);
    free(k_rows);
    return result;
}

} // namespace

// Chroma row j is darkened by K row j, also where chroma has half the rows. The rule runs on over
// the rows below the decoded chroma; those are black, which K does not change.
void jpeg_ycck_to_yuv(unsigned char* y, unsigned char* u, unsigned char* v, unsigned char* k,
                      size_t rows)
{
    const size_t luma = rows * image_stride_Y;
    const size_t chroma = (rows >> image_chroma_y_shift) * image_stride_U;
    INVARIANT(luma != 0 && chroma != 0, "i != 0");
    invert_and_darken_luma(y, k, luma);
    if (image_chroma_x_shift != 0) {
        fputs("ERROR: YCCK -> YUV: Unsupported chroma subsample\n", stderr);
        invert(u, chroma);
        invert(v, chroma);
    } else {
        invert_and_darken_chroma(u, k, chroma);
        invert_and_darken_chroma(v, k, chroma);
    }
    jpeg_rescale_luma_to_16_235(y, luma);
    jpeg_rescale_chroma_to_16_240(u, chroma);
    jpeg_rescale_chroma_to_16_240(v, chroma);
}

int full_decode_jpeg_raw_ycck()
{
    unsigned char* k_rows = allocate_k_rows();
    if (k_rows == nullptr) {
        return -1;
    }
    INVARIANT(image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    INVARIANT(jpeg_decompress->num_components == 4, "jpeg_decompress->num_components == 4");
    const int group_chroma = most_jpeg_group_rows >> image_chroma_y_shift;
    INVARIANT((group_chroma << image_chroma_y_shift) == most_jpeg_group_rows,
              "(GROUP_chroma << image_chroma_y_shift) == 16");
    return decode_and_free(ycck, k_rows);
}

int full_decode_jpeg_raw_cmyk()
{
    unsigned char* k_rows = allocate_k_rows();
    if (k_rows == nullptr) {
        return -1;
    }
    INVARIANT(image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    INVARIANT(image_chroma_x_shift == 0, "image_chroma_x_shift == 0");
    INVARIANT(image_chroma_y_shift == 0, "image_chroma_y_shift == 0");
    INVARIANT(jpeg_decompress->num_components == 4, "jpeg_decompress->num_components == 4");
    return decode_and_free(cmyk, k_rows);
}
