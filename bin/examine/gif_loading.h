// Reading a GIF's records into the library's list of frames.
//
// What is kept of a frame is bounded: the part of its raster that lies on the screen, a colour map,
// and two graphic-control blocks, less than 1.5 KiB beside the raster. Further frames than the frame
// buffer could ever hold are read and counted, and nothing is kept of them.
#pragma once

#include <cstdint>

#include <gif_lib.h>

// How a frame is shown.
struct gif_frame_control {
    unsigned disposal;
    unsigned delay; // 1/100 s, at least 2
};

// From the last graphic-control block of the frame; without one disposal 0 and delay 10.
gif_frame_control read_gif_frame_control(const SavedImage& frame);

struct gif_contents {
    uint64_t frames;       // of the file, the broken one at its end and those not kept included
    uint64_t running_time; // sum of their delays, 1/100 s
};

// Reads the records of an opened file up to its end and keeps the first `kept_frames` frames in its
// list. GIF_OK; GIF_ERROR when a record cannot be read, when there is no frame, or when DIE4 cut
// reading short: what was read so far then stands in the list, the broken frame included. Serves the
// comm socket meanwhile.
//
// A frame inside the screen has its raster in the order of the file. Of one that juts out the visible
// part is kept, as a frame that is not interlaced and has that part's size. A raster that has no
// visible part or no memory is null; what a cut frame lacks is index 0. Of the extensions the
// graphic-control blocks are kept that say how the frame is shown.
int load_gif(GifFileType* gif, uint64_t kept_frames, gif_contents* found);
