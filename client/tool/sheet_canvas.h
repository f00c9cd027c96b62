// The canvas of a contact sheet: text, frames and pictures drawn into RGB.
#pragma once

#include <cstdint>
#include <string>

#include "client/stillimage_client.h"
#include "client/tool/picture_files.h"
#include "client/tool/sheet_font.h"

struct sheet_point {
    uint32_t x = 0;
    uint32_t y = 0;
    bool operator==(const sheet_point&) const = default;
};

using grey = uint8_t; // of text, frames and background

// Clips everything at its edges.
class sheet_canvas {
public:
    sheet_canvas(sheet_extent size, grey background);

    void draw_text(sheet_point at, uint32_t scale, const std::string& lines, grey shade);
    void draw_frame(sheet_point at, sheet_extent size, grey shade); // a line of one pixel around it

    // Draws the picture at `size`: each pixel is the mean of the samples that it covers. A
    // checkerboard shows through alpha.
    void draw_picture(sheet_point at, sheet_extent size, const stillimage_picture& picture);

    const rgb_picture& pixels() const { return pixels_; }

private:
    void fill(sheet_point at, sheet_extent size, grey shade);
    void draw_glyph(sheet_point at, uint32_t scale, char character, grey shade);
    void set(uint32_t x, uint32_t y, const uint8_t* rgb);

    rgb_picture pixels_;
};

// The checkerboard at a pixel of the drawn picture.
grey checkerboard_at(uint32_t x, uint32_t y);
