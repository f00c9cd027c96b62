// A fresh process, as far as the PNG units can tell, and a PNG opened in it.
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

// A colour type and the decoder for it.
struct model {
    const char* name; // of the decoder
    uint8_t colour_type;
    std::vector<uint8_t> depths;
    int (*decode)();
    std::vector<std::string> planes; // that it draws, in the order of mapping
    const char* adam7_status;        // null: an invariant
    const char* other_status;        // null: none
};

extern const std::vector<model> models;
const model& model_of(unsigned colour_type);

// What a picture prints whose reading the library ends, its own line in the middle.
std::string damage(const std::string& library_message);

size_t row_bytes(const png_spec& spec); // the filter byte included

// Samples and filters drawn by lot from `seed`; a palette of all 256 colours or of as many as the
// depth has.
png_spec random_picture(uint32_t width, uint32_t height, uint8_t colour_type, uint8_t depth,
                        unsigned seed = 1);

// The same with the image data in chunks of `piece` bytes, compressed at `level`.
bytes write_in_pieces(const png_spec& spec, size_t piece, int level = 6);

bytes read_file(const std::string& path);

class Fixture : public testing::Test {
protected:
    void SetUp() override { start_anew(); }
    void TearDown() override { start_anew(); }

    static void start_anew();

    // Examines `file`, which must go well, lays the frame buffer out and fills it with `before`.
    void open(const bytes& file, unsigned char before = 0);

    // Runs the decoder of the open picture, keeps what it prints in `told`.
    int decode();
    int decode(int (*decoder)());

    // Opens and decodes `file` over a buffer of `before`; all of it has to be as the rules have it.
    void expect_as_told(const bytes& file, const std::string& name, unsigned char before = 0);

    static bytes allocation(); // the whole frame buffer

    std::string told;
};

// While not 0, png_get_PLTE gives a null palette, or none at all.
enum class palette_trouble { NONE, NULL_PALETTE, NO_PALETTE };
extern palette_trouble trouble;

} // namespace png_tests
