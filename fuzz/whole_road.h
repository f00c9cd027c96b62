// What the fuzz targets of the five formats share: a picture's road from examination to the pyramid,
// on the scripted platform.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fuzz/require.h"

inline constexpr int64_t most_pixels = 1 << 20; // larger pictures only cost time

// Everything of the program and the platform as it is at program start, but the format's own reader.
void start_anew();

// Makes the input the picture. With a last byte below `last_pump` that is the number of the pump in
// which a signal arrives.
void take_picture(const uint8_t* data, size_t size, int last_pump);

void lay_out();   // the frame buffer of the picture that was examined
void make_room(); // allocates it and builds the records

// Builds the pyramid, unless decoding did or a signal came.
void reduce();
