// Shared by the fuzz targets of the five formats: the steps of a picture from examination to its
// mipmaps, on the scripted platform.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fuzz/require.h"

inline constexpr int64_t max_pixels = 1 << 20; // larger pictures only cost time

// Resets the program and the platform to the state at program start, except the format's reader.
void reset_everything();

// Makes the input the picture. A last byte N below `signal_rounds` delivers a signal in the N-th
// idle round; 0: no signal.
void set_input(const uint8_t* data, size_t size, int signal_rounds);

void lay_out();         // the frame buffer of the examined picture
void allocate_buffer(); // allocates the buffer and builds the records

// Generates the mipmaps, unless decoding did or a signal arrived.
void build_mipmaps();
