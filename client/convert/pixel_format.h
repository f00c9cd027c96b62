// The formats of packed pixels.
#pragma once

#include <cstdint>

#include "client/stillimage_client.h"

// Bytes of a pixel; 0: no such format.
constexpr uint32_t channels_of(uint32_t format)
{
    switch (format) {
    case STILLIMAGE_RGB24:
        return 3;
    case STILLIMAGE_RGBA32:
        return 4;
    default:
        return 0;
    }
}
