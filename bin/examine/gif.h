// GIF: loading the whole picture with giflib, its timing, and the handle's clean-up.
#pragma once

#include <cstdint>

#include <gif_lib.h>

// The loaded picture, or null; written by this unit. Rasters are in the order of the file, also
// those of interlaced frames. A frame whose raster could not be loaded has a null RasterBits; what
// a cut frame lacks is index 0.
extern GifFileType* gif_image;

// How a frame is shown.
struct gif_frame_control {
    unsigned disposal;
    unsigned delay; // 1/100 s, at least 2
};

// From the last graphic-control block of the frame; without one disposal 0 and delay 10.
gif_frame_control read_gif_frame_control(const SavedImage& frame);

// Sum of the frames' delays in 1/100 s; at least 1.
uint64_t gif_running_time(const GifFileType& gif);

// Reads the records of an opened file up to its end. GIF_OK; GIF_ERROR when one cannot be read or
// there is no frame: what was read so far then stands in the list, the broken frame included.
int load_gif(GifFileType* gif);

// 0 with the picture loaded and the image state set; 1 with everything closed and a message
// printed. When a picture is open already: a message, 1, and nothing touched.
int examine_gif_file();

void free_all_gif(); // closes the handle; may be called at any time and twice
