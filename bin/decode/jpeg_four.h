// JPEG pictures of four components. The fourth, K, is folded into the three planes: as stored, 255
// in every component is white, and 0 in K is black.
#pragma once

#include <cstddef>

// Both need an examined JPEG and an allocated frame buffer. 0, also when the picture could be drawn
// only in part; -1 when there is no memory for K or decompression could not be started.
int full_decode_jpeg_raw_ycck();
int full_decode_jpeg_raw_cmyk();

// One row group of a YCCK picture to video range, in place. `rows` luma rows of image_stride_Y
// bytes in y and k, and rows >> image_chroma_y_shift rows of the chroma strides in u and v; neither
// may be 0. With horizontally subsampled chroma K cannot be laid over it: a message, and K darkens
// luma only.
void jpeg_ycck_to_yuv(unsigned char* y, unsigned char* u, unsigned char* v, unsigned char* k,
                      size_t rows);
