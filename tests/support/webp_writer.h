// WebP files: pictures from the library's encoder, and containers written byte by byte.
#pragma once

#include <cstdint>
#include <vector>

// `rgba` holds width x height pixels of 4 bytes. With every alpha 255 the file has no alpha.
std::vector<unsigned char> lossless_webp(int width, int height,
                                         const std::vector<unsigned char>& rgba);
std::vector<unsigned char> lossy_webp(int width, int height, const std::vector<unsigned char>& rgba,
                                      float quality);

// The shortest lossless file, less than 50 bytes: all pixels black. Width and height are 1 to
// 16384.
std::vector<unsigned char> one_colour_webp(uint32_t width, uint32_t height);

// The container of an animation with a canvas and without frames.
std::vector<unsigned char> webp_animation_start(uint32_t width, uint32_t height, bool alpha);
