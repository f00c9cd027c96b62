// A plain version of the drawing rules for interlaced pictures: pass by pass, row by row, pixel by
// pixel.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tests/support/png_samples.h"

// The four full-size planes with their whole strides and buffer heights; empty when absent.
using adam7_planes = std::array<std::vector<unsigned char>, 4>;

class adam7_literal {
public:
    adam7_literal(const png_samples& picture, unsigned char before);

    // Draws the next row of a pass, or nothing in a pass without columns. Returns false after the
    // last row, or when the file has ended and the reader has given up.
    bool draw_row();

    // Ends the pass before its next row.
    void leave_pass();

    // Ends all passes.
    void stop() { pass_ = 7; }

    bool has_alpha() const { return alpha_; }
    int pass() const { return pass_; } // the pass of the next row, 0 to 6; 7 at the end
    bool gave_up() const { return gave_up_; }
    uint64_t rows_drawn() const { return rows_drawn_; }
    uint64_t rows_in_all() const;
    const adam7_planes& planes() const { return planes_; }

private:
    void go_to_next_row();
    void end_pass();
    void make_band_black(uint32_t row);
    bool take_row();
    void paint(uint32_t x, uint32_t y, const unsigned char* pixel);
    std::array<int, 4> converted(const unsigned char* pixel) const;

    png_samples picture_;
    std::vector<std::vector<unsigned char>> waiting_; // rows that have not been read yet
    size_t next_waiting_ = 0;
    std::vector<unsigned char> row_; // the reader's row; a short row leaves the rest unchanged
    adam7_planes planes_;
    uint32_t stride_;
    uint32_t buffer_height_;
    bool alpha_;
    bool gave_up_ = false;
    int pass_ = 0;
    uint32_t row_of_pass_ = 0;
    uint64_t rows_drawn_ = 0;
};
