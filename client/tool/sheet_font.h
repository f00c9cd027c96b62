// Letters for the labels of a contact sheet: printable ASCII, everything else is a box.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

struct sheet_extent {
    uint32_t width = 0;
    uint32_t height = 0;
    bool operator==(const sheet_extent&) const = default;
};

inline constexpr uint32_t glyph_width = 5;
inline constexpr uint32_t glyph_height = 8;
inline constexpr uint32_t line_height = 10; // from line to line

// Bit 4 is the leftmost pixel of a row.
using glyph_rows = std::array<uint8_t, glyph_height>;

const glyph_rows& glyph_of(char character);

// The text with one byte for each of its UTF-8 characters, cut to `most` (at least 3), which "..."
// tells.
std::string drawable(const std::string& text, size_t most);

// What drawable lines take when each of a glyph's pixels is `scale` wide.
sheet_extent text_extent(const std::string& text, uint32_t scale);
