// Fixture of the PNG tests: resets all state and opens a PNG.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/failing_calls.h"
#include "tests/support/png_writer.h"
#include "tests/support/scripted_platform.h"

namespace png_tests {

using bytes = std::vector<unsigned char>;

// A colour type and its decoder.
struct model {
    const char* name; // of the decoder
    uint8_t colour_type;
    std::vector<uint8_t> depths;
    int (*decode)();
    std::vector<std::string> planes; // the planes it draws, in the order of mapping
    const char* adam7_status;        // null: breaks an invariant
    const char* other_status;        // null: no status
};

extern const std::vector<model> models;
const model& model_of(unsigned colour_type);

// What is printed when the library ends the reading of a picture, with the library's own line in
// the middle.
std::string damage(const std::string& library_message);

size_t row_bytes(const png_spec& spec); // including the filter byte

// Random samples and filters from `seed`. The palette has as many colours as the depth can index.
png_spec random_picture(uint32_t width, uint32_t height, uint8_t colour_type, uint8_t depth,
                        unsigned seed = 1);

// The same file with the image data in chunks of `piece` bytes, compressed at `level`.
bytes write_in_pieces(const png_spec& spec, size_t piece, int level = 6);

class Fixture : public testing::Test {
protected:
    void SetUp() override { start_over(); }
    void TearDown() override { start_over(); }

    static void start_over();

    // Examines `file`, which must succeed, lays out the frame buffer and fills it with `before`.
    void open(const bytes& file, unsigned char before = 0);

    // Runs the decoder of the open picture and stores what it prints in `printed`.
    int decode();
    int decode(int (*decoder)());

    // Opens and decodes `file` in a buffer filled with `before`; every byte must match the rules.
    void expect_drawn_by_rules(const bytes& file, const std::string& name,
                               unsigned char before = 0);

    static bytes allocation(); // the whole frame buffer

    std::string printed;
};

// Makes png_get_PLTE return a null palette, no palette or one entry fewer, unless NONE.
enum class palette_trouble { NONE, NULL_PALETTE, NO_PALETTE, ONE_ENTRY_FEWER };
extern palette_trouble trouble;

} // namespace png_tests
