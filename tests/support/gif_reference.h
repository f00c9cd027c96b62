// The rules of composing an animation in their plainest form, for comparison: a reader of its own
// for the file and its LZW data, and a canvas of R, G, B, A on which one pixel is drawn after the
// other.
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
    bool has_raster = false;            // false: broken before its pixels
    std::vector<unsigned char> indices; // width x height, in the order of the file
    unsigned disposal = 0;
    unsigned delay = 10;
    std::optional<unsigned char> transparent;
};

struct animation {
    unsigned width = 0, height = 0, background = 0;
    std::vector<colour> palette; // global; empty: none
    std::vector<frame> frames;
    bool whole = false; // read up to its trailer
};

// What can be read of the file.
animation read(const file_bytes& file);

// The canvas after each frame, width x height pixels.
std::vector<std::vector<colour>> compose(const animation& what);

// Start time to frame, as far as `frames`.
std::map<uint64_t, uint64_t> timeline(const animation& what, size_t frames = SIZE_MAX);
uint64_t running_time(const animation& what);

} // namespace gif_reference
