// JPEG pictures whose components are the frame buffer's planes as they stand: YCbCr and grayscale.
// The stream's own chroma resolution is kept; samples are only rescaled to video range.
#pragma once

// Both need an examined JPEG and an allocated frame buffer. 0, also when the picture could be drawn
// only in part; -1 when decompression could not be started.
int full_decode_jpeg_raw_yuv();
int full_decode_jpeg_raw_grayscale();
