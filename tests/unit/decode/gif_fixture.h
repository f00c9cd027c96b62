// Fixture of the GIF tests: resets all state and opens a GIF.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/gif_writer.h"

void reset_for_gif();

class gif_test : public testing::Test {
protected:
    using file_bytes = std::vector<unsigned char>;

    void SetUp() override { reset_for_gif(); }
    void TearDown() override { reset_for_gif(); }

    // Examines `file`, which must succeed, lays out the frame buffer and fills it with zeros.
    void open(const file_bytes& file);

    int decode();                                   // stores what it prints in `printed`
    static std::vector<unsigned char> allocation(); // the whole frame buffer

    // Opens and decodes a file, which must print nothing, and compares the result with the plain
    // version of the rules.
    void expect_drawn_by_rules(const file_bytes& file, const std::string& name = "");

    std::string printed;
};

// The whole frame buffer of image_decoded_size bytes after the plain version of the rules has drawn
// the first `frames` frames of `file`. Uses the layout of the examined picture.
std::vector<unsigned char> draw_gif_literally(const std::vector<unsigned char>& file,
                                              size_t frames = SIZE_MAX);

// A frame with all pixels set to `index`.
gif_frame_spec plain_frame(unsigned left, unsigned top, unsigned width, unsigned height,
                           unsigned char index);

struct shown_pixel {
    unsigned y, u, v, a;
    bool operator==(const shown_pixel&) const = default;
};

// One pixel of a frame in the frame buffer.
shown_pixel pixel_of(size_t frame, unsigned x, unsigned y);
