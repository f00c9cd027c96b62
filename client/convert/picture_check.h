// Checks of the conversions' arguments, which callers may have made up themselves.
#pragma once

#include <cstddef>
#include <cstdint>

#include "client/stillimage_client.h"

inline constexpr uint32_t max_extent = INT32_MAX; // of any width and height

bool is_extent(uint32_t width, uint32_t height);

// Whether the picture is not null and has a size, complete Y and A planes, two chroma planes or
// none, and a known subsampling.
bool can_convert(const stillimage_picture* picture);

// Bytes of a packed pixel; 0 for an unknown format.
uint32_t channels_of(uint32_t format);

// Whether `stride` holds a row of `width` pixels, and an object in memory can have `height` such
// rows.
bool holds_pixels(size_t stride, uint32_t channels, uint32_t width, uint32_t height);
