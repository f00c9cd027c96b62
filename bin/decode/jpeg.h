// JPEG pictures, one decoder for each colour model. The stream's own chroma resolution is kept. A
// fourth component, K, is folded into the three planes: as stored, 255 in every component is white,
// and 0 in K is black.
#pragma once

#include <cstddef>

// All need an examined JPEG and an allocated frame buffer. They return 0, also when only a part of
// the picture could be drawn, and -1 when decompression could not be started or there is no memory
// for K.
int full_decode_jpeg_raw_yuv();
int full_decode_jpeg_raw_grayscale();
int full_decode_jpeg_raw_ycck();
int full_decode_jpeg_raw_cmyk();

// Converts one row group of a YCCK picture to video range, in place: `rows` luma rows of
// image_stride_Y bytes in y and k, and rows >> image_chroma_y_shift rows of the chroma strides in u
// and v. Neither may be 0. K cannot be applied to horizontally subsampled chroma: a message is
// printed, and K darkens luma only.
void jpeg_ycck_to_yuv(unsigned char* y, unsigned char* u, unsigned char* v, unsigned char* k,
                      size_t rows);
