// A served picture as packed 8-bit RGB or RGBA, full range.
#pragma once

#include <cstdint>
#include <vector>

#include "client/stillimage_client.h"

struct rgb_picture {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t channels = 3;        // 4: with straight alpha
    std::vector<uint8_t> samples; // width x height x channels
};

// At the picture's own size. Alpha is kept when `keep_alpha` and the picture has any.
rgb_picture to_rgb(const stillimage_picture& picture, bool keep_alpha);
