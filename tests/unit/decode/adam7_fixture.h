// Fixture of the tests for interlaced PNGs: resets all state, opens a picture and compares a decode
// with the rules row by row.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/failing_calls.h"
#include "tests/support/scripted_platform.h"
#include "tests/unit/decode/adam7_literal.h"
#include "tests/unit/decode/adam7_pictures.h"

namespace adam7_tests {

using bytes = std::vector<unsigned char>;

class Fixture : public testing::Test {
protected:
    void SetUp() override { start_over(); }
    void TearDown() override { start_over(); }

    static void start_over();

    // Examines `file`, which must succeed, lays out the frame buffer with or without reduced
    // levels, fills it with `before` and builds the picture's records.
    void open(const bytes& file, unsigned char before = 0, bool levels = false);

    int decode(); // stores what it prints in `printed`

    // Opens and decodes `file`. Before each row and at the end the planes must match the rules.
    // `before_row` gets the index of the next row among the rows of all passes; a change it makes
    // to the literal rules it must also cause in the decoder.
    using row_action = std::function<void(uint64_t, adam7_literal&)>;
    void expect_drawn_by_rules(const bytes& file, unsigned char before = 0,
                               const row_action& before_row = {});

    static bytes plane(int index); // a plane of the frame buffer; empty when absent

    static size_t count_calls(const std::string& name);

    std::string printed;

private:
    void compare(const adam7_literal& literal, const std::string& when);

    uint64_t plane_offsets_[4] = {}; // from the layout, since the alpha plane may be dropped later
};

} // namespace adam7_tests
