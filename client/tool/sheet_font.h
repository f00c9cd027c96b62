// The font of a contact sheet's labels: printable ASCII; any other character is a box.
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

// The text with one byte for each UTF-8 character. A text of more than `max_length` (at least 3)
// characters is truncated and ends in "...".
std::string drawable(const std::string& text, size_t max_length);

// The size of drawable lines when each pixel of a glyph is `scale` wide and high.
sheet_extent text_extent(const std::string& text, uint32_t scale);
