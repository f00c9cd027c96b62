// Fixture of the TIFF tests: resets all state and opens a TIFF.
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
    void SetUp() override { start_over(); }
    void TearDown() override { start_over(); }

    static void start_over();

    // Examines `file`; on success lays out the frame buffer and fills it with `before`.
    bool open(const file_bytes& file, unsigned char before = 0);

    // Runs the decoder for the photometric value. Stores what the program prints in `printed` and
    // the library's lines in `printed_by_library`.
    int decode();

    static void decode_directly(); // for death tests, which capture standard error themselves

    // Opens and decodes `file`. Picture, messages and progress must match the plain version of the
    // rules; `options` apply to both. False when the file is refused.
    bool expect_drawn_by_rules(const file_bytes& file, const tiff_literal_options& options = {});

    static file_bytes allocation(); // the whole frame buffer

    static unsigned sample(uint64_t offset, uint64_t stride, uint64_t x, uint64_t y);
    static std::vector<unsigned> pixel(uint64_t x, uint64_t y); // Y, U, V

    std::string printed;
    std::string printed_by_library;
    std::string expected_from_library; // while the plain version of the rules draws the file
};
