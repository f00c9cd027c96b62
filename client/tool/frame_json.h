// A frame's descriptor and its decoded scanline list as one JSON object.
#pragma once

#include <string>

#include "client/stillimage_client.h"

// Keys: buffer, area_size, scanline_offset, scanline_size, frame_number, width, height, aspect (two
// numbers), provisional, scanline (every field of the record; planes as arrays in the order Y, U,
// V, A).
std::string frame_json(const stillimage_descriptor_info& descriptor);
