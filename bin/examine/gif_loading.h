// Reads a GIF's records into the library's list of frames.
//
// The memory for a frame is bounded: the part of its raster that lies on the screen, a colour map
// and two graphic-control blocks, less than 1.5 KiB besides the raster. Frames beyond what the
// frame buffer could ever hold are read and counted, but not kept.
#pragma once

#include <cstdint>

#include <gif_lib.h>

// How a frame is shown.
struct gif_frame_control {
    unsigned disposal;
    unsigned delay; // 1/100 s, at least 2
};

// The values of the frame's last graphic-control block; disposal 0 and delay 10 without one.
gif_frame_control read_gif_frame_control(const SavedImage& frame);

struct gif_contents {
    uint64_t frames;       // of the file, including a broken last one and those not kept
    uint64_t running_time; // sum of their delays, 1/100 s
};

// Reads the records of an open file to its end and keeps the first `kept_frames` frames in its
// list. Returns GIF_OK, or GIF_ERROR when a record cannot be read, when there is no frame, or when
// DIE4 stopped reading; the list then holds everything read so far, including the broken frame.
// Serves the comm socket meanwhile.
//
// A frame inside the screen keeps its raster in file order. A frame that extends beyond the screen
// is stored as a frame of its visible part only, not interlaced. The raster is null when it has no
// visible part, or when there is no memory for it; pixels missing from a truncated frame are index
// 0. Of the extensions only the graphic-control blocks that determine how the frame is shown are
// kept.
int load_gif(GifFileType* gif, uint64_t kept_frames, gif_contents* found);
