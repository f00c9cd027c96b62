// A fresh process, as far as the TIFF units can tell, and a TIFF opened in it.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/failing_calls.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/tiff_encoder.h"
#include "tests/support/tiff_literal.h"
#include "tests/support/tiff_writer.h"

using file_bytes = std::vector<unsigned char>;

class tiff_test : public testing::Test {
protected:
    void SetUp() override { start_anew(); }
    void TearDown() override { start_anew(); }

    static void start_anew();

    // Examines `file`; when that goes well, lays the frame buffer out and fills it with `before`.
    bool open(const file_bytes& file, unsigned char before = 0);

    // By the photometric value. Keeps what is printed in `told`, the library's own lines in
    // `told_by_library`.
    int decode();

    static void decode_directly(); // for death tests, which want standard error for themselves

    // Opens, decodes, and expects picture, messages and progress to be those of the rules. What
    // `options` script goes for both sides. False when the file is refused.
    bool expect_drawn_by_the_rules(const file_bytes& file,
                                   const tiff_literal_options& options = {});

    static file_bytes allocation(); // the whole frame buffer

    static unsigned sample(uint64_t offset, uint64_t stride, uint64_t x, uint64_t y);
    static std::vector<unsigned> pixel(uint64_t x, uint64_t y); // Y, U, V

    std::string told;
    std::string told_by_library;
    std::string literally_told_by_library; // to the plain form of the rules
};
