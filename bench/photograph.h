// A photograph made larger without end: twice its size, so that its finest detail is that of a
// camera's picture, in mirrored tiles, with noise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

inline constexpr int large_width = 6000;
inline constexpr int large_height = 4000;
inline constexpr int camera_noise = 9; // levels, centred on 0

enum class photo_colours { RGB, YCBCR };

struct photograph {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> samples; // three components a pixel
};

// From a JPEG file. A failure ends the program with a message.
photograph read_photograph(const std::string& path, photo_colours colours);

// Sample of component 0 .. 2; `x` and `y` in pixels of the large picture, 0 or more.
unsigned char enlarged(const photograph& from, int component, int x, int y,
                       int noise_levels = camera_noise);

// Even noise of 32 bits, the same for the same place.
uint32_t noise_bits(int component, int x, int y);

// Opaque in the middle of the large picture, transparent at its corners.
unsigned char large_alpha(int x, int y);

// `channels` bytes a pixel: R, G, B, then alpha when there are four.
std::vector<unsigned char> draw_large_rows(const photograph& from, int channels, int first_row,
                                           int rows, int noise_levels = camera_noise);

// For indexed pictures: the photograph's most frequent colours, and for every colour of 5 bits a
// channel the nearest of them.
struct photo_palette {
    std::vector<unsigned char> colours; // 256, three bytes each
    std::vector<unsigned char> nearest; // by r >> 3 << 10 | g >> 3 << 5 | b >> 3
};

photo_palette make_palette(const photograph& from);

// A pixel in that palette, dithered by noise.
unsigned char large_index(const photograph& from, const photo_palette& palette, int x, int y);

void write_drawn_file(const std::string& path, const void* bytes, size_t size);

// With a message; the program ends.
[[noreturn]] void give_up_drawing(const std::string& what);
