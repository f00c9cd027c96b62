// Fixture of the WebP tests: resets all state, opens a WebP, and has a plain version of the drawing
// rules.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <webp/decode.h>

using file_bytes = std::vector<unsigned char>;

// An irregular picture, with alpha when requested.
file_bytes noise(int width, int height, bool alpha, unsigned seed = 1);

file_bytes webp_of_tests(const std::string& name); // a file of tests/data/webp
file_bytes first_bytes(const file_bytes& file, size_t count);

// The first `count` bytes, with the sizes of the file and of its last chunk adjusted. Only the
// bitstream ends early, which the library notices after some rows.
file_bytes short_bitstream(const file_bytes& file, size_t count);

class webp_test : public testing::Test {
protected:
    void SetUp() override { start_over(); }
    void TearDown() override { start_over(); }

    static void start_over();

    // Examines `file`; on success lays out the frame buffer and fills it with `before`.
    bool open(const file_bytes& file, unsigned char before = 0);

    int decode(); // stores what is printed in `printed`

    static file_bytes allocation(); // the whole frame buffer

    std::string printed;
};

// The whole frame buffer by the rules: the visible rows and all chroma rows are blackened, the
// library draws over them, then the last drawn chroma row is repeated to the end of its plane. Call
// it with the picture open and before decoding.
struct drawn_picture {
    file_bytes area;
    VP8StatusCode status;
};
drawn_picture drawn_by_the_rules(const file_bytes& file, unsigned char before = 0);

// The same for a valid picture, from planes that the library allocates itself.
file_bytes assembled_from_own_planes(const file_bytes& file);
