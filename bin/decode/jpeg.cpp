#include "bin/decode/jpeg.h"

#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

#include "bin/decode/cmyk_kernels.h"
#include "bin/decode/jpeg_rows.h"
#include "bin/decode/planes.h"
#include "bin/decode/rescale.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "platform/cnb.h"

namespace {

// --- conversion of a row group ------------------------------------------------------------------

void convert_grayscale(const sample_planes& group, unsigned char* /*k*/, uint64_t rows)
{
    jpeg_rescale_luma_to_16_235(group.y, rows * image_stride_Y);
}

void convert_yuv(const sample_planes& group, unsigned char* /*k*/, uint64_t rows)
{
    const uint64_t chroma_rows = rows >> image_chroma_y_shift;
    jpeg_rescale_luma_to_16_235(group.y, rows * image_stride_Y);
    jpeg_rescale_chroma_to_16_240(group.u, chroma_rows * image_stride_U);
    jpeg_rescale_chroma_to_16_240(group.v, chroma_rows * image_stride_V);
}

void convert_ycck(const sample_planes& group, unsigned char* k, uint64_t rows)
{
    jpeg_ycck_to_yuv(group.y, group.u, group.v, k, rows);
}

void convert_cmyk(const sample_planes& group, unsigned char* k, uint64_t rows)
{
    cmyk_to_yuv(group.y, group.u, group.v, k, rows * image_stride_Y);
}

// clang-format off
//   decoder                           planes      band  twice  conversion
constexpr jpeg_variant yuv =
    {"full_decode_jpeg_raw_yuv",       planes_yuv, 32,   true,  convert_yuv};
constexpr jpeg_variant grayscale =
    {"full_decode_jpeg_raw_grayscale", planes_y,   64,   false, convert_grayscale};
constexpr jpeg_variant ycck =
    {"full_decode_jpeg_raw_ycck",      planes_yuv, 32,   false, convert_ycck};
constexpr jpeg_variant cmyk =
    {"full_decode_jpeg_raw_cmyk",      planes_yuv, 32,   false, convert_cmyk};
// clang-format on

// --- starting -----------------------------------------------------------------------------------

void check_chroma_group(const jpeg_variant& variant)
{
    const int group_chroma = max_jpeg_group_rows >> image_chroma_y_shift;
    check_invariant(variant.name, (group_chroma << image_chroma_y_shift) == max_jpeg_group_rows,
                    "(GROUP_chroma << image_chroma_y_shift) == 16");
}

// Zeroed, because what the library does not write of it is folded into the picture's padding.
unsigned char* allocate_k_rows()
{
    auto* rows = static_cast<unsigned char*>(calloc(max_jpeg_group_rows, image_stride_Y));
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

// Chroma row j is darkened by K row j, also where chroma has half the rows. By rule the loop also
// covers the rows below the decoded chroma; those are black, which K does not change.
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

int full_decode_jpeg_raw_yuv()
{
    INVARIANT(image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    INVARIANT(jpeg_decompress->num_components == 3, "jpeg_decompress->num_components == 3");
    check_chroma_group(yuv);
    return decode_jpeg_rows(yuv, nullptr);
}

int full_decode_jpeg_raw_grayscale()
{
    INVARIANT(image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    INVARIANT(jpeg_decompress->num_components == 1, "jpeg_decompress->num_components == 1");
    return decode_jpeg_rows(grayscale, nullptr);
}

int full_decode_jpeg_raw_ycck()
{
    unsigned char* k_rows = allocate_k_rows();
    if (k_rows == nullptr) {
        return -1;
    }
    INVARIANT(image_cnb_buffer_fd >= 0, "image_cnb_buffer_fd >= 0");
    INVARIANT(jpeg_decompress->num_components == 4, "jpeg_decompress->num_components == 4");
    check_chroma_group(ycck);
    return decode_and_free(ycck, k_rows);
}

int full_decode_jpeg_raw_cmyk()
{
    unsigned char* k_rows = allocate_k_rows();
    if (k_rows == nullptr) {
        return -1;
    }
    check_full_size_chroma(cmyk.name);
    INVARIANT(jpeg_decompress->num_components == 4, "jpeg_decompress->num_components == 4");
    return decode_and_free(cmyk, k_rows);
}
