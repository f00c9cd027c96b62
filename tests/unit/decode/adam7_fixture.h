// A fresh process, as far as the decoder of interlaced PNGs can tell, a picture opened in it, and a
// decode watched row by row.
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

bytes read_file(const std::string& path);

class Fixture : public testing::Test {
protected:
    void SetUp() override { start_anew(); }
    void TearDown() override { start_anew(); }

    static void start_anew();

    // Examines `file`, which must go well, lays the frame buffer out with or without its reduced
    // levels, fills it with `before` and makes the picture's records.
    void open(const bytes& file, unsigned char before = 0, bool levels = false);

    int decode(); // keeps what it prints in `told`

    // Opens and decodes `file`. Before each row and at the end the planes have to be as the rules
    // have them. `before_row` is told the number of the row that comes next, of all rows; what it
    // changes in the literal rules it has to bring about in the decoder.
    void expect_as_told(const bytes& file, unsigned char before = 0,
                        const std::function<void(uint64_t, adam7_literal&)>& before_row = {});

    static bytes plane(int index); // of the frame buffer; empty when absent

    static size_t count_calls(const std::string& name);

    std::string told;

private:
    void compare(const adam7_literal& literal, const std::string& when);

    uint64_t plane_offsets_[4] = {}; // as laid out: the alpha plane's may be forgotten later
};

} // namespace adam7_tests
