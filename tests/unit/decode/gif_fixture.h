// A fresh process, as far as the GIF units can tell, and a GIF opened in it.
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

    // Examines `file`, which must go well, lays the frame buffer out and provides it as zeros.
    void open(const file_bytes& file);

    int decode();                                   // what it prints goes to `told`
    static std::vector<unsigned char> allocation(); // the whole frame buffer

    // Opens and decodes a file, without a word, and compares it with the rules drawn out plainly.
    void expect_drawn_as_told(const file_bytes& file, const std::string& name = "");

    std::string told;
};

// The whole frame buffer of image_decoded_size bytes with the first `frames` units of `file` drawn by
// the plain rules. Reads the layout of an examined picture.
std::vector<unsigned char> draw_gif_literally(const std::vector<unsigned char>& file,
                                              size_t frames = SIZE_MAX);

// A frame whose pixels are all `index`.
gif_frame_spec plain_frame(unsigned left, unsigned top, unsigned width, unsigned height,
                           unsigned char index);

struct shown_pixel {
    unsigned y, u, v, a;
    bool operator==(const shown_pixel&) const = default;
};

// A pixel of a frame in the frame buffer.
shown_pixel pixel_of(size_t frame, unsigned x, unsigned y);
