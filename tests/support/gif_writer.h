// Writes GIF files block by block.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

using gif_colour = std::array<unsigned char, 3>;

struct gif_control_spec {
    unsigned disposal = 0;
    unsigned delay = 0;
    std::optional<unsigned char> transparent = {};
};

struct gif_frame_spec {
    unsigned left = 0;
    unsigned top = 0;
    unsigned width = 1;
    unsigned height = 1;
    bool interlaced = false;
    std::optional<gif_control_spec> control = {};
    std::vector<gif_colour> palette = {}; // local; 2 to 256 colours, a power of two; empty: none
    // In file order. The vector may be shorter than the frame.
    std::vector<unsigned char> indices = {};
    // Instead of `indices`: all are 0, compressed to a few thousandths of their size.
    bool all_zero = false;
};

struct gif_spec {
    unsigned width = 1;
    unsigned height = 1;
    unsigned background = 0;
    std::vector<gif_colour> palette = {{0, 0, 0}, {255, 255, 255}}; // global; as above
    std::vector<gif_frame_spec> frames = {};
    bool trailer = true;
};

// Frames of one index, or of varying indices. `delay` is in hundredths of a second.
gif_frame_spec uniform_gif_frame(unsigned width, unsigned height, unsigned char index,
                                 unsigned delay);
gif_frame_spec varied_gif_frame(unsigned width, unsigned height, unsigned delay);

// An extension such as the graphic control: introducer, code, data blocks, terminator.
void append_gif_extension(std::vector<unsigned char>& file, unsigned char code,
                          const std::vector<std::vector<unsigned char>>& blocks);

std::vector<unsigned char> gif_start(const gif_spec& spec); // signature, screen and global palette
void append_gif_frame(std::vector<unsigned char>& file, const gif_frame_spec& frame);
std::vector<unsigned char> write_gif(const gif_spec& spec);
