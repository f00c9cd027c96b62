// Pictures as packed 8-bit RGB, and as files that other programs open.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/stillimage_client.h"

struct rgb_picture {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t channels = 3;        // 4: with straight alpha
    std::vector<uint8_t> samples; // full range, width x height x channels
};

// Converts at the picture's own size. Keeps alpha if `keep_alpha` is set and the picture has any.
rgb_picture to_rgb(const stillimage_picture& picture, bool keep_alpha);

// These return the whole file, or "" when memory is short.
std::string png_file(const stillimage_picture& picture); // RGB, or RGBA with alpha
std::string png_file(const rgb_picture& rgb);
std::string ppm_file(const stillimage_picture& picture); // RGB; alpha is dropped
