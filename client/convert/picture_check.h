// What every conversion needs of a picture, which may come from anywhere.
#pragma once

#include <cstdint>

#include "client/stillimage_client.h"

// The largest width and height of anything that is converted.
inline constexpr uint32_t most_extent = INT32_MAX;

bool is_extent(uint32_t width, uint32_t height);

// Whether the picture has a size, whole Y and A planes, two chroma planes or none, and a known
// subsampling. Not null.
bool can_convert(const stillimage_picture* picture);
