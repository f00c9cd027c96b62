// Whole files: every combination of the tags that choose the conversion, compressions, byte orders,
// stored pictures and damaged ones.
#include <algorithm>
#include <filesystem>

#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "tests/support/file_contents.h"
#include "tests/unit/decode/tiff_fixture.h"

namespace {

class DecodeTiff : public tiff_test {};

// --- tags ---------------------------------------------------------------------------------------

constexpr uint32_t width = 37;
constexpr uint32_t height = 19;
constexpr uint32_t strip_rows = 7;

tiff_spec combined(uint32_t photometric, uint32_t bits, uint32_t samples, uint32_t planar)
{
    tiff_spec spec = plain_tiff(width, height, samples, photometric);
    spec.set_short(258, std::vector<uint32_t>(samples, bits));
    spec.set_long(278, {strip_rows});
    spec.set_short(284, {planar});
    spec.set_short(530, {1, 1});
    if (photometric == 3) {
        spec.set_short(320, std::vector<uint32_t>(3U << std::min(bits, 16U), 0x1234));
    }
    const uint32_t samples_of_row = planar == 2 ? 1 : samples;
    const size_t row = (size_t{width} * bits * samples_of_row + 7) / 8;
    spec.strips.clear();
    for (uint32_t plane = 0; plane < (planar == 2 ? samples : 1); ++plane) {
        for (uint32_t first = 0; first < height; first += strip_rows) {
            const size_t rows = std::min(strip_rows, height - first);
            spec.strips.push_back(noise_bytes(rows * row, plane * 100 + first));
        }
    }
    return spec;
}

TEST_F(DecodeTiff, EveryModelDepthSampleCountAndArrangement)
{
    int drawn = 0;
    for (const uint32_t photometric : {0U, 1U, 2U, 3U, 5U, 6U}) {
        for (const uint32_t bits : {1U, 2U, 4U, 8U, 16U, 32U}) {
            for (uint32_t samples = 1; samples <= 6; ++samples) {
                for (const uint32_t planar : {1U, 2U}) {
                    SCOPED_TRACE(testing::Message()
                                 << photometric << " " << bits << " " << samples << " " << planar);
                    const auto spec = combined(photometric, bits, samples, planar);
                    drawn += expect_drawn_by_rules(write_tiff(spec), {.before = 0x5A}) ? 1 : 0;
                    if (HasFailure()) {
                        return;
                    }
                }
            }
        }
    }
    EXPECT_GT(drawn, 250); // the others are refused because of their samples
}

TEST_F(DecodeTiff, ColoursOfEachModel)
{
    struct colour_case {
        uint32_t photometric;
        std::vector<unsigned char> stored;
        std::vector<unsigned> drawn;
    };
    const colour_case cases[] = {
        {2, {255, 0, 0}, {81, 90, 239}},     {2, {128, 128, 128}, {126, 128, 128}},
        {6, {255, 0, 255}, {235, 16, 239}},  {6, {128, 127, 129}, {125, 128, 128}},
        {5, {1, 2, 3, 255}, {16, 128, 128}}, {5, {0, 0, 0, 0}, {235, 128, 128}},
        {5, {255, 0, 0, 0}, {169, 165, 16}}, // cyan
    };
    for (const colour_case& colour : cases) {
        tiff_spec spec =
            plain_tiff(1, 1, static_cast<uint32_t>(colour.stored.size()), colour.photometric);
        spec.set_short(530, {1, 1});
        spec.strips = {colour.stored};
        ASSERT_TRUE(open(write_tiff(spec)));
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(pixel(0, 0), colour.drawn);
        start_over();
    }
}

TEST_F(DecodeTiff, PaletteUsesTheHighBytes)
{
    tiff_spec spec = plain_tiff(2, 1, 1, 3);
    spec.tags[320].values[200] = 65535;
    spec.tags[320].values[0] = spec.tags[320].values[256] = spec.tags[320].values[512] = 0x00FF;
    spec.strips = {{200, 0}};
    ASSERT_TRUE(open(write_tiff(spec)));
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(pixel(0, 0), (std::vector<unsigned>{81, 90, 239}));
    EXPECT_EQ(pixel(1, 0), (std::vector<unsigned>{16, 128, 128}));
}

TEST_F(DecodeTiff, EightBitsAreNotInvertedAndOneBitIs)
{
    for (const uint32_t photometric : {0U, 1U}) {
        tiff_spec spec = plain_tiff(2, 1, 1, photometric);
        spec.strips = {{0, 255}};
        ASSERT_TRUE(open(write_tiff(spec)));
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(allocation()[0], 16);
        EXPECT_EQ(allocation()[1], 235);
        start_over();
        spec.set_short(258, {1});
        spec.strips = {{0x40}};
        ASSERT_TRUE(open(write_tiff(spec)));
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(allocation()[0], photometric == 1 ? 16 : 235);
        EXPECT_EQ(allocation()[1], photometric == 1 ? 235 : 16);
        EXPECT_EQ(allocation()[7], photometric == 1 ? 16 : 235); // padding of the byte
        EXPECT_EQ(allocation()[8], 16);
        start_over();
    }
}

TEST_F(DecodeTiff, SixteenBitsAreDrawnBlackButCountAsRead)
{
    tiff_spec spec = plain_tiff(4, 4, 4, 2);
    spec.set_short(258, {16, 16, 16, 16});
    spec.strips = {std::vector<unsigned char>(128, 0x77)};
    ASSERT_TRUE(open(write_tiff(spec), 0x5A));
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(pixel(3, 3), (std::vector<unsigned>{16, 128, 128}));
    EXPECT_EQ(sample(image_offset_A, image_stride_A, 3, 3), 255U);
    EXPECT_EQ(sample(image_offset_Y, image_stride_Y, 0, 4), 0x5AU);
}

// --- files --------------------------------------------------------------------------------------

TEST_F(DecodeTiff, CompressionsAndByteOrders)
{
    struct compression_case {
        uint16_t number, photometric, samples, bits, predictor;
    };
    // None, LZW, Deflate, PackBits, fax (three kinds), JPEG.
    const compression_case cases[] = {
        {1, 2, 3, 8, 1},     {5, 2, 4, 8, 1}, {5, 2, 3, 8, 2}, {8, 2, 3, 8, 2},
        {32946, 5, 5, 8, 1}, {8, 3, 1, 8, 1}, {5, 1, 2, 8, 2}, {32773, 1, 1, 8, 1},
        {32773, 0, 1, 1, 1}, {2, 0, 1, 1, 1}, {3, 1, 1, 1, 1}, {4, 0, 1, 1, 1},
        {7, 1, 1, 8, 1},     {7, 2, 3, 8, 1}, {7, 6, 3, 8, 1}, {7, 5, 4, 8, 1},
    };
    for (const compression_case& made : cases) {
        for (const char* mode : {"wl", "wb", "w8"}) {
            SCOPED_TRACE(testing::Message()
                         << made.number << " " << made.photometric << " " << mode);
            const auto file = encode_tiff({.width = 70,
                                           .height = 50,
                                           .bits = made.bits,
                                           .samples = made.samples,
                                           .photometric = made.photometric,
                                           .compression = made.number,
                                           .predictor = made.predictor,
                                           .rows_per_strip = 16,
                                           .mode = mode});
            ASSERT_FALSE(file.empty());
            ASSERT_TRUE(expect_drawn_by_rules(file));
            const file_bytes drawn = allocation();
            EXPECT_EQ(printed, "");
            // Something was drawn in every row down to the last.
            const auto* last = &drawn[49 * image_stride_Y];
            EXPECT_NE(std::count(last, last + 70, *last), 70);
        }
    }
}

TEST_F(DecodeTiff, TilesWithAStripHeightAreDrawnBlack)
{
    tiff_spec spec = plain_tiff(16, 16, 3, 2);
    spec.set_short(322, {16});
    spec.set_short(323, {16});
    spec.set_long(324, {8});
    spec.set_long(325, {768});
    ASSERT_TRUE(expect_drawn_by_rules(write_tiff(spec), {.before = 0x5A}));
    EXPECT_EQ(printed, "TIFFReadEncodedStrip() returned too many bytes\n");
    EXPECT_NE(printed_by_library, "");
    EXPECT_EQ(pixel(15, 15), (std::vector<unsigned>{16, 128, 128}));
}

TEST_F(DecodeTiff, TruncatedFiles)
{
    for (const uint16_t compression : std::initializer_list<uint16_t>{1, 5, 8, 32773, 7}) {
        const auto file = encode_tiff(
            {.width = 33, .height = 40, .compression = compression, .rows_per_strip = 8});
        tiff_spec moved = combined(2, 8, 3, 1);
        for (size_t length = 8; length < file.size(); length += file.size() / 25) {
            expect_drawn_by_rules({file.begin(), file.begin() + static_cast<long>(length)});
        }
        // Truncation would spare the leading directory, so the strips are moved to offsets beyond
        // the end instead.
        moved.set_short(259, {compression});
        for (const uint32_t strip : {0U, 1U, 2U}) {
            std::vector<uint32_t> offsets = {8, 8, 8};
            offsets[strip] = 100000;
            moved.set_long(273, offsets);
            moved.set_long(279, {777, 777, 555});
            expect_drawn_by_rules(write_tiff(moved), {.before = 0x5A});
        }
    }
}

TEST_F(DecodeTiff, ChangedBytes)
{
    const uint16_t compressions[] = {1, 5, 8, 32773, 7};
    for (unsigned round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        file_bytes file = encode_tiff({.width = 33,
                                       .height = 30,
                                       .compression = compressions[round % 5],
                                       .rows_per_strip = 8});
        const file_bytes noise = noise_bytes(12, round);
        for (size_t i = 0; i < 12; i += 4) {
            // Every second round changes the directory, which follows the strips.
            const size_t at = noise[i] * size_t{256} + noise[i + 1];
            const size_t span = round % 2 == 0 ? file.size() : std::min<size_t>(file.size(), 200);
            file[file.size() - 1 - at % span] = noise[i + 2];
        }
        start_over();
        if (!open(file) || int64_t{image_width} * image_height > 1 << 20) {
            continue;
        }
        expect_drawn_by_rules(file);
    }
}

TEST_F(DecodeTiff, ExtremeTagValues)
{
    for (const uint16_t tag : std::initializer_list<uint16_t>{256, 257, 258, 259, 262, 266, 277,
                                                              278, 284, 317, 320, 332, 530}) {
        for (const uint32_t value : {0U, 1U, 3U, 255U, 32768U, 65535U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
            SCOPED_TRACE(testing::Message() << tag << " " << value);
            tiff_spec spec = combined(2, 8, 3, 1);
            spec.set_long(tag, {value});
            expect_drawn_by_rules(write_tiff(spec));
        }
    }
}

TEST_F(DecodeTiff, StoredPictures)
{
    int drawn = 0;
    for (const auto& entry : std::filesystem::directory_iterator(STILLIMAGE_TEST_DATA "/tiff")) {
        SCOPED_TRACE(entry.path().filename());
        drawn += expect_drawn_by_rules(read_test_file(entry.path())) ? 1 : 0;
    }
    EXPECT_EQ(drawn, 24);
}

// Read in rows of the library instead of strips, luma only.
TEST_F(DecodeTiff, StoredPicturesRowByRow)
{
    for (const char* name : {"rgb-lzw.tiff", "rgb-big-endian.tiff", "rgba-lzw-predictor.tiff"}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(open(read_test_file(STILLIMAGE_TEST_DATA "/tiff/" + std::string(name))));
        EXPECT_EQ(decode(), 0);
        std::vector<unsigned char> row(tiff_bytes_per_row);
        for (uint32_t y = 0; y < tiff_height; ++y) {
            ASSERT_EQ(TIFFReadScanline(tiff_image, row.data(), y), 1);
            for (uint32_t x = 0; x < tiff_width; ++x) {
                const unsigned char* p = &row[size_t{x} * tiff_spp];
                ASSERT_EQ(sample(image_offset_Y, image_stride_Y, x, y),
                          (66U * p[0] + 129U * p[1] + 25U * p[2] + 4096U) >> 8);
            }
        }
        start_over();
    }
}

} // namespace
