// Rows of large strips about which the row decoder of the library complains: the strip is decoded
// again in one call, and only the outcome of that call counts.
#include <algorithm>
#include <vector>

#include <gtest/gtest.h>
#include <tiffio.h>

#include "bin/examine/tiff.h"
#include "platform/run_state.h"
#include "tests/unit/decode/tiff_fixture.h"

namespace {

constexpr uint32_t width = 920;
constexpr uint32_t height = 800; // 2.1 MiB
constexpr uint32_t samples = 3;

class DecodeTiffDoubtfulRows : public tiff_test {
protected:
    static std::vector<unsigned> black() { return {16, 128, 128}; }
};

// PackBits runs of 128 that ignore row boundaries. Decoding row by row the library warns of them
// and truncates them. The first `whole_rows` rows have runs of their own.
file_bytes runs_across_rows(uint32_t whole_rows)
{
    constexpr uint32_t max_run = 128;
    tiff_spec spec = plain_tiff(width, height, samples, 2);
    spec.set_short(259, {COMPRESSION_PACKBITS});
    file_bytes strip;
    uint32_t left = width * samples * height;
    while (left > 0) {
        const uint32_t row = width * samples;
        const bool is_whole = left > row * (height - whole_rows);
        const uint32_t of_row = left % row == 0 ? row : left % row;
        const uint32_t run = std::min({max_run, left, is_whole ? of_row : left});
        left -= run;
        strip.insert(strip.end(), {static_cast<unsigned char>(1 - static_cast<int>(run)),
                                   static_cast<unsigned char>(left / 100 % 200 + 30)});
    }
    spec.strips = {strip};
    return write_tiff(spec);
}

TEST_F(DecodeTiffDoubtfulRows, RunsAcrossRowsAreDrawnSilently)
{
    ASSERT_TRUE(expect_drawn_by_rules(runs_across_rows(0), {.before = 0x5A}));
    EXPECT_EQ(printed + printed_by_library, "");
    const auto last = pixel(width - 1, height - 1);
    EXPECT_NE(last, pixel(0, 0));
}

// The rows decoded before must not remain, since a codec may report success without writing
// everything.
TEST_F(DecodeTiffDoubtfulRows, DoubtfulRowsAreClearedBeforeTheStripIsDecodedAgain)
{
    constexpr uint32_t whole_rows = 10;
    constexpr int64_t strip_bytes = width * samples * height;
    ASSERT_TRUE(open(runs_across_rows(whole_rows), 0x5A));
    std::vector<int64_t> asked;
    failing_calls::plan.tiff_read_strip = [&](uint32_t strip, unsigned char* to, int64_t size) {
        asked.push_back(size);
        return size == 0 ? failing_calls::read_tiff_strip(tiff_image, strip, to, 0) : size;
    };
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(asked, (std::vector<int64_t>{0, strip_bytes}));
    for (uint32_t row = 0; row <= whole_rows; ++row) {
        EXPECT_EQ(pixel(0, row), black());
        EXPECT_EQ(pixel(width - 1, row), black());
    }
}

TEST_F(DecodeTiffDoubtfulRows, StripWithDoubtfulRowsIsNotDecodedAgainAfterASignal)
{
    ASSERT_TRUE(open(runs_across_rows(0), 0x5A));
    failing_calls::plan.on_read = [] { DIE4 = 1; };
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed + printed_by_library, "");
    EXPECT_EQ(pixel(0, 0), black());
    EXPECT_EQ(pixel(width - 1, height - 1), black());
}

} // namespace
