// Damaged pictures: what is drawn and what is printed.
#include <csignal>
#include <random>

#include <gmock/gmock.h>
#include <png.h>

#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/framebuffer/layout.h"
#include "tests/support/file_contents.h"
#include "tests/support/png_literal.h"
#include "tests/unit/decode/png_fixture.h"

using testing::HasSubstr;
using testing::KilledBySignal;

namespace png_tests {
namespace {

constexpr unsigned char sentinel = 0xA5;
constexpr size_t max_block = 8192; // the most that the library reads at a time

class PngDamage : public Fixture {
protected:
    static size_t find(const bytes& file, const std::string& chunk, size_t from = 0)
    {
        const auto at = std::search(file.begin() + static_cast<ptrdiff_t>(from), file.end(),
                                    chunk.begin(), chunk.end());
        return static_cast<size_t>(at - file.begin());
    }
};

TEST_F(PngDamage, InvalidFilterInAnyRowKeepsTheEarlierBatches)
{
    for (const model& m : models) {
        const png_spec sound = random_picture(5, 200, m.colour_type, m.depths.front());
        for (size_t row = 0; row < sound.height; ++row) {
            png_spec spec = sound;
            spec.rows[row * row_bytes(spec)] = 5;
            expect_drawn_by_rules(write_png(spec), m.name + std::to_string(row), sentinel);
            EXPECT_EQ(printed, damage("bad adaptive filter value"));
        }
    }
}

TEST_F(PngDamage, InvalidChecksumOfAnyChunkKeepsTheEarlierBatches)
{
    for (const model& m : models) {
        const png_spec spec = random_picture(9, 150, m.colour_type, 8);
        const bytes sound = write_in_pieces(spec, row_bytes(spec), 0);
        size_t seen = 0;
        for (size_t at = find(sound, "IDAT"); at < sound.size(); at = find(sound, "IDAT", at + 4)) {
            bytes file = sound;
            file[at + 4 + file[at - 1]] ^= 1; // the checksum's first byte
            expect_drawn_by_rules(file, m.name + std::to_string(seen), sentinel);
            EXPECT_EQ(printed, damage("IDAT: CRC error"));
            ++seen;
        }
        EXPECT_GE(seen, 150U);
    }
}

TEST_F(PngDamage, FileTruncatedAnywhereKeepsTheEarlierBatches)
{
    for (const model& m : models) {
        // The compressed data fills several blocks of the library.
        const png_spec spec = random_picture(130, 330, m.colour_type, 8);
        const bytes whole = write_in_pieces(spec, max_block * 2 + 100);
        const size_t first = find(whole, "IDAT") + 4;
        const size_t last = find(whole, "IEND") - 5; // cuts off the last byte of the checksum
        ASSERT_GT(last, first + 2 * max_block);
        for (size_t size = first; size <= last; size += size + 2000 < last ? 1999 : 97) {
            const bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
            expect_drawn_by_rules(cut, m.name + std::to_string(size), sentinel);
            EXPECT_EQ(printed, damage("Read Error"));
        }
    }
}

TEST_F(PngDamage, MissingEndIsToleratedUpToTheLastChecksum)
{
    const bytes whole = write_png(random_picture(20, 20, 2, 8));
    const bytes no_end(whole.begin(), whole.end() - 12);
    expect_drawn_by_rules(no_end, "without an end chunk");
    EXPECT_EQ(printed, "");
    const bytes no_checksum(whole.begin(), whole.end() - 16);
    expect_drawn_by_rules(no_checksum, "without the last checksum", sentinel);
    EXPECT_EQ(printed, damage("Read Error"));
}

TEST_F(PngDamage, MissingRowsAreReported)
{
    for (const model& m : models) {
        png_spec spec = random_picture(20, 130, m.colour_type, 8);
        spec.rows.resize(row_bytes(spec) * 100 + 5);
        expect_drawn_by_rules(write_png(spec), m.name, sentinel);
        EXPECT_EQ(printed, damage("Not enough image data"));
    }
}

TEST_F(PngDamage, SurplusRowsAreTolerated)
{
    png_spec spec = random_picture(20, 70, 2, 8);
    spec.rows.resize(spec.rows.size() * 2);
    expect_drawn_by_rules(write_png(spec), "too many rows");
    EXPECT_THAT(printed, testing::Not(HasSubstr("aborting")));
}

TEST_F(PngDamage, FlippedBytesAreDrawnByTheRules)
{
    std::mt19937 random(7);
    size_t damaged = 0;
    for (const model& m : models) {
        png_spec spec = random_picture(11, 140, m.colour_type, 8);
        for (unsigned char& byte : spec.rows) {
            byte &= 0x13; // makes the compressor use codes and distances
        }
        for (size_t row = 0; row < spec.height; ++row) {
            spec.rows[row * row_bytes(spec)] %= 5;
        }
        const bytes sound = write_in_pieces(spec, 200);
        const size_t first = find(sound, "IDAT") + 4;
        for (int round = 0; round < 150; ++round) {
            bytes file = sound;
            file[first + random() % (sound.size() - first)] ^=
                static_cast<unsigned char>(1 + random() % 255);
            expect_drawn_by_rules(file, m.name + std::to_string(round), sentinel);
            damaged += printed.ends_with("aborting decode\n");
        }
    }
    EXPECT_GT(damaged, 600U);
}

TEST_F(PngDamage, FailingBatchIsBlackAndOpaque)
{
    png_spec spec = random_picture(16, 128, 6, 8);
    spec.rows[127 * row_bytes(spec)] = 9;
    open(write_png(spec));
    ASSERT_EQ(decode(), 0);
    for (size_t at = 64 * image_stride_Y; at < 128 * image_stride_Y; ++at) {
        ASSERT_EQ(scripted::buffer()[image_offset_Y + at], 16);
        ASSERT_EQ(scripted::buffer()[image_offset_U + at], 128);
        ASSERT_EQ(scripted::buffer()[image_offset_V + at], 128);
        ASSERT_EQ(scripted::buffer()[image_offset_A + at], 255);
    }
    EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""}));
}

TEST_F(PngDamage, FailingBatchOfGreyKeepsItsSamplesUnscaled)
{
    png_spec spec = random_picture(17, 10, 0, 2);
    spec.rows.assign(spec.rows.size(), 0);
    spec.rows[row_bytes(spec) * 3 + 1] = 0b1110'0100;
    spec.rows[row_bytes(spec) * 9] = 9;
    open(write_png(spec));
    ASSERT_EQ(decode(), 0);
    for (const int i : {0, 1, 2, 3}) {
        EXPECT_EQ(scripted::buffer()[3 * image_stride_Y + static_cast<size_t>(i)], 3 - i);
    }
}

TEST_F(PngDamage, FailingBatchOfGreyWithAlphaIsUnchanged)
{
    png_spec spec = random_picture(17, 70, 4, 8);
    spec.rows[row_bytes(spec) * 69] = 9;
    open(write_png(spec), sentinel);
    ASSERT_EQ(decode(), 0);
    for (size_t at = 64 * image_stride_Y; at < 80 * image_stride_Y; ++at) {
        ASSERT_EQ(scripted::buffer()[image_offset_Y + at], sentinel);
        ASSERT_EQ(scripted::buffer()[image_offset_A + at], sentinel);
    }
}

TEST_F(PngDamage, LibraryErrorAfterDecodingEndsTheProcess)
{
    for (const bool is_damaged : {false, true}) {
        start_over();
        png_spec spec = random_picture(4, 4, 2, 8);
        spec.rows[0] = is_damaged ? 5 : 0;
        open(write_png(spec));
        ASSERT_EQ(decode(), 0);
        EXPECT_EXIT(png_error(png_context, "late"), KilledBySignal(SIGABRT),
                    "libpng error: late\nUnexpected PNG setjmp after header setup\n");
    }
}

TEST_F(PngDamage, TruncatedPhotographIsDrawnUpToItsEnd)
{
    const bytes file = read_test_file("png/rgb-cut.png");
    open(file);
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, damage("Read Error"));
    EXPECT_TRUE(allocation() == draw_png_literally(file));
    EXPECT_NE(scripted::buffer()[0], 0);
}

// --- small files that unpack to much data -------------------------------------------------------

bytes large_profile(size_t size)
{
    bytes profile(size);
    profile[0] = static_cast<unsigned char>(size >> 24);
    profile[1] = static_cast<unsigned char>(size >> 16);
    profile[2] = static_cast<unsigned char>(size >> 8);
    profile[3] = static_cast<unsigned char>(size);
    png_spec carrier = {.rows = profile};
    const bytes file = write_png(carrier);
    const std::string name = "IDAT";
    const auto at = std::search(file.begin(), file.end(), name.begin(), name.end());
    bytes chunk = {'p', 0, 0};
    chunk.insert(chunk.end(), at + 4, file.end() - 16);
    return chunk;
}

TEST_F(PngDamage, LargeProfileIsNotUnpacked)
{
    png_spec spec = random_picture(20, 20, 2, 8);
    spec.chunks = {{"iCCP", large_profile(60'000'000)}};
    ASSERT_LT(spec.chunks[0].data.size(), 70'000U);
    const bytes file = write_png(spec);
    open(file);
    EXPECT_THAT(printed, testing::Not(HasSubstr("iCCP")));
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, "");
    EXPECT_TRUE(allocation() == draw_png_literally(file));
}

TEST_F(PngDamage, LargePictureInASmallFileIsDrawn)
{
    for (const model& m : models) {
        png_spec spec = random_picture(3000, 1, m.colour_type, 8);
        spec.height = 2000;
        spec.rows.assign(row_bytes(spec) * spec.height, 0);
        const bytes file = write_png(spec);
        ASSERT_LT(file.size(), 40'000U);
        expect_drawn_by_rules(file, m.name);
        EXPECT_EQ(printed, "");
    }
}

} // namespace
} // namespace png_tests
