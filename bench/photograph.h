// A photograph extended to any size: enlarged to twice its size, so that its detail resembles that
// of a camera, repeated in mirrored tiles, with noise.
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

// Reads a JPEG file. A failure ends the program with a message.
photograph read_photograph(const std::string& path, photo_colours colours);

// Returns the sample of component 0 .. 2; `x` and `y` are in pixels of the large picture, at least
// 0.
unsigned char enlarged(const photograph& from, int component, int x, int y,
                       int noise_levels = camera_noise);

// 32 bits of uniform noise, always the same for the same position.
uint32_t noise_bits(int component, int x, int y);

// Alpha of the large picture: opaque in the middle, transparent at the corners.
unsigned char large_alpha(int x, int y);

// Rows with `channels` bytes per pixel: R, G, B, and alpha if there are four.
std::vector<unsigned char> draw_large_rows(const photograph& from, int channels, int first_row,
                                           int rows, int noise_levels = camera_noise);

// For indexed pictures: the photograph's most frequent colours, and the nearest of them for every
// colour with 5 bits per channel.
struct photo_palette {
    std::vector<unsigned char> colours; // 256 of three bytes each
    std::vector<unsigned char> nearest; // index: r >> 3 << 10 | g >> 3 << 5 | b >> 3
};

photo_palette make_palette(const photograph& from);

// Palette index of a pixel, dithered with noise.
unsigned char large_index(const photograph& from, const photo_palette& palette, int x, int y);

void write_drawn_file(const std::string& path, const void* bytes, size_t size);

// Prints the message and ends the program.
[[noreturn]] void give_up_drawing(const std::string& what);
