// Damaged strips of every codec: whatever a codec leaves unwritten or decodes wrongly, the picture
// shows what was read, zeros or black, and never old contents of the heap.
#include <algorithm>
#include <cstring>
#include <malloc.h>

#include <gmock/gmock.h>
#include <tiffio.h>

#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "tests/unit/decode/tiff_fixture.h"

namespace {

struct codec {
    const char* name;
    uint16_t number, photometric, samples, bits;
};

constexpr codec codecs[] = {
    {"fax, plain", COMPRESSION_CCITTRLE, 0, 1, 1},
    {"fax, words", COMPRESSION_CCITTRLEW, 0, 1, 1},
    {"fax 3", COMPRESSION_CCITTFAX3, 0, 1, 1},
    {"fax 4", COMPRESSION_CCITTFAX4, 0, 1, 1},
    {"JBIG", COMPRESSION_JBIG, 0, 1, 1},
    {"LZW", COMPRESSION_LZW, 2, 4, 8},
    {"Deflate", COMPRESSION_ADOBE_DEFLATE, 5, 4, 8},
    {"PackBits", COMPRESSION_PACKBITS, 3, 1, 8},
    {"JPEG", COMPRESSION_JPEG, 6, 3, 8},
    {"LERC", COMPRESSION_LERC, 1, 1, 8},
    {"LERC RGB", COMPRESSION_LERC, 2, 3, 8},
    {"ZSTD", COMPRESSION_ZSTD, 2, 3, 8},
    {"WebP", COMPRESSION_WEBP, 2, 3, 8},
    {"WebP alpha", COMPRESSION_WEBP, 2, 4, 8},
    {"LZMA", COMPRESSION_LZMA, 1, 2, 8},
    {"PixarLog", COMPRESSION_PIXARLOG, 2, 3, 8},
};

constexpr uint32_t width = 70;
constexpr uint32_t height = 50;

// The library writes the strips first and the directory after them.
uint32_t end_of_strips(const file_bytes& file)
{
    uint32_t directory = 0;
    memcpy(&directory, &file[4], sizeof directory);
    return directory;
}

class DecodeTiffDamage : public tiff_test {
protected:
    static file_bytes encoded(const codec& by)
    {
        encoded_tiff made;
        made.width = width;
        made.height = height;
        made.bits = by.bits;
        made.samples = by.samples;
        made.photometric = by.photometric;
        made.compression = by.number;
        made.rows_per_strip = by.number == COMPRESSION_JBIG ? height : 16;
        return encode_tiff(made);
    }

    // The frame buffer after a decode on a heap whose new blocks are filled with `filler`.
    file_bytes drawn_on_heap_of(int filler, const file_bytes& file)
    {
        start_over();
        mallopt(M_PERTURB, filler);
        const bool opened = open(file, 0x5A);
        EXPECT_TRUE(opened && decode() == 0);
        mallopt(M_PERTURB, 0);
        return allocation();
    }

    void expect_no_heap(const file_bytes& file)
    {
        EXPECT_TRUE(expect_drawn_by_rules(file, {.before = 0x5A}));
        EXPECT_TRUE(drawn_on_heap_of(0x11, file) == drawn_on_heap_of(0xEE, file));
    }
};

TEST_F(DecodeTiffDamage, StripsOfEachCodecShowNothingOfTheHeap)
{
    for (const codec& by : codecs) {
        if (TIFFIsCODECConfigured(by.number) == 0) {
            continue;
        }
        const file_bytes sound = encoded(by);
        ASSERT_FALSE(sound.empty()) << by.name;
        const uint32_t strips = end_of_strips(sound) - 8;
        expect_no_heap(sound);
        EXPECT_EQ(printed, "") << by.name;
        for (unsigned round = 0; round < 60; ++round) {
            SCOPED_TRACE(testing::Message() << by.name << " " << round);
            const file_bytes noise = noise_bytes(8, round);
            file_bytes damaged = sound;
            const size_t at = 8 + (noise[0] * size_t{256} + noise[1]) % strips;
            const size_t bytes = std::min<size_t>(1 + noise[2] % 16, 8 + strips - at);
            for (size_t i = at; i < at + bytes; ++i) {
                damaged[i] = round % 2 == 0 ? noise[3 + i % 4] : 0;
            }
            expect_no_heap(damaged);
            if (HasFailure()) {
                return;
            }
        }
    }
}

// --- a codec that reports success and writes less -----------------------------------------------

file_bytes strip_of_jbig(uint32_t rows, unsigned seed)
{
    encoded_tiff made;
    made.width = width;
    made.height = made.rows_per_strip = rows;
    made.bits = made.samples = 1;
    made.photometric = 0;
    made.compression = COMPRESSION_JBIG;
    made.seed = seed;
    const file_bytes file = encode_tiff(made);
    return {file.begin() + 8, file.begin() + end_of_strips(file)};
}

TEST_F(DecodeTiffDamage, RowsThatACodecDoesNotWriteReadAsZeros)
{
    if (TIFFIsCODECConfigured(COMPRESSION_JBIG) == 0) {
        GTEST_SKIP() << "libtiff has no JBIG";
    }
    constexpr uint32_t rows = 60;
    constexpr uint32_t rows_written = 16;
    tiff_spec spec = plain_tiff(width, rows, 1, 0);
    spec.set_short(258, {1});
    spec.set_short(259, {COMPRESSION_JBIG});
    spec.strips = {strip_of_jbig(rows_written, 1)};
    expect_no_heap(write_tiff(spec));
    EXPECT_EQ(printed, "");
    EXPECT_THAT(printed_by_library, testing::HasSubstr("Only decoded"));
    for (uint64_t y = 0; y < rows; ++y) {
        int black = 0;
        for (uint64_t x = 0; x < width; ++x) {
            black += sample(image_offset_Y, image_stride_Y, x, y) == 16 ? 1 : 0;
        }
        EXPECT_EQ(black == 0, y >= rows_written) << y; // white is zero
    }
}

// --- a codec that trusts the size in its header -------------------------------------------------

void put_number(file_bytes& strip, size_t at, uint32_t value)
{
    for (size_t i = 0; i < 4; ++i) {
        strip[at + i] = static_cast<unsigned char>(value >> (24 - 8 * i));
    }
}

// A strip of 32 rows whose header claims another size, in either bit order.
tiff_spec jbig_claiming(uint32_t strip_width, uint32_t strip_height, uint32_t fill_order)
{
    constexpr uint32_t rows = 32;
    tiff_spec spec = plain_tiff(width, rows, 1, 0);
    spec.set_short(258, {1});
    spec.set_short(259, {COMPRESSION_JBIG});
    spec.set_short(266, {fill_order});
    file_bytes strip = strip_of_jbig(rows, 1);
    TIFFReverseBits(strip.data(), static_cast<tmsize_t>(strip.size()));
    put_number(strip, 4, strip_width);
    put_number(strip, 8, strip_height);
    if (fill_order != FILLORDER_LSB2MSB) {
        TIFFReverseBits(strip.data(), static_cast<tmsize_t>(strip.size()));
    }
    spec.strips = {strip};
    return spec;
}

TEST_F(DecodeTiffDamage, JbigThatClaimsMoreThanItsStripIsNotDecoded)
{
    if (TIFFIsCODECConfigured(COMPRESSION_JBIG) == 0) {
        GTEST_SKIP() << "libtiff has no JBIG";
    }
    for (const uint32_t fill_order : {uint32_t{FILLORDER_MSB2LSB}, uint32_t{FILLORDER_LSB2MSB}}) {
        for (const auto& [w, h] :
             {std::pair{width, 33U}, std::pair{width + 3, 32U}, std::pair{~0U, 1U},
              std::pair{1U << 20, 1U << 20}, std::pair{~0U - 1, ~0U - 1}}) {
            start_over();
            ASSERT_TRUE(open(write_tiff(jbig_claiming(w, h, fill_order)), 0x5A));
            EXPECT_EQ(decode(), 0);
            EXPECT_EQ(printed, "TIFFReadEncodedStrip() returned too many bytes\n");
            EXPECT_EQ(printed_by_library, "TIFF ERROR: JBIG: Strip 0 says that it is " +
                                              std::to_string(w) + " x " + std::to_string(h) +
                                              " pixels, which is too much\n");
            EXPECT_EQ(sample(image_offset_Y, image_stride_Y, 0, 0), 16U);
        }
        expect_no_heap(write_tiff(jbig_claiming(width, 32, fill_order)));
        EXPECT_EQ(printed + printed_by_library, "");
    }
}

} // namespace
