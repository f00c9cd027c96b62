// A fresh process, as far as the WebP units can tell, a WebP opened in it, and the drawing rules in
// plain form.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <webp/decode.h>

using file_bytes = std::vector<unsigned char>;

// A picture without regularity; alpha too, when asked for.
file_bytes noise(int width, int height, bool alpha, unsigned seed = 1);

file_bytes webp_of_tests(const std::string& name); // of tests/data/webp
file_bytes first_bytes(const file_bytes& file, size_t count);

// The first bytes with the sizes of the file and of its last chunk to match: it is the bitstream
// that ends early then, and the library finds out after some rows only.
file_bytes short_bitstream(const file_bytes& file, size_t count);

class webp_test : public testing::Test {
protected:
    void SetUp() override { start_anew(); }
    void TearDown() override { start_anew(); }

    static void start_anew();

    // Examines `file`; when that goes well, lays the frame buffer out and fills it with `before`.
    bool open(const file_bytes& file, unsigned char before = 0);

    int decode(); // keeps what is printed in `told`

    static file_bytes allocation(); // the whole frame buffer

    std::string told;
};

// What the whole frame buffer holds by the rules: the visible rows and all chroma rows are blackened,
// the library draws over them, then the last chroma row drawn goes on to the end of its plane. To be
// called with the picture open, and before it is decoded.
struct drawn_picture {
    file_bytes area;
    VP8StatusCode status;
};
drawn_picture drawn_by_the_rules(const file_bytes& file, unsigned char before = 0);

// The same for a good picture, from planes that the library allocates by itself.
file_bytes assembled_from_own_planes(const file_bytes& file);
