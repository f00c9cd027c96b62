// A plain implementation of composing an animation, for comparison: its own reader for the file and
// the LZW data, and a canvas of R, G, B, A that is drawn pixel by pixel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace gif_reference {

using file_bytes = std::vector<unsigned char>;

struct colour {
    unsigned char r, g, b, a;
    bool operator==(const colour&) const = default;
};

struct frame {
    unsigned left = 0, top = 0, width = 0, height = 0;
    bool interlaced = false;
    std::vector<colour> palette;        // local; empty: none
    bool has_raster = false;            // false: the frame ends before its pixels
    std::vector<unsigned char> indices; // width x height, in file order
    unsigned disposal = 0;
    unsigned delay = 10;
    std::optional<unsigned char> transparent;
};

struct animation {
    unsigned width = 0, height = 0, background = 0;
    std::vector<colour> palette; // global; empty: none
    std::vector<frame> frames;
    bool whole = false; // was read up to the trailer
};

// Reads as much of the file as possible.
animation read(const file_bytes& file);

// The canvas after each frame, width x height pixels.
std::vector<std::vector<colour>> compose(const animation& what);

// Maps the start time of each of the first `frames` frames to its index.
std::map<uint64_t, uint64_t> timeline(const animation& what, size_t frames = SIZE_MAX);
uint64_t running_time(const animation& what);

} // namespace gif_reference
