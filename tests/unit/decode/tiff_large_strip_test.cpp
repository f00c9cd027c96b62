// Strips that are decoded in pieces: pixels and messages equal those of one call of the library, a
// signal ends the decode between pieces, and clients are served.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <span>

#include <gmock/gmock.h>
#include <tiffio.h>

#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "tests/unit/decode/tiff_fixture.h"

namespace {

constexpr uint32_t width = 920;
constexpr uint32_t height = 800; // 2.1 MiB
constexpr uint16_t samples = 3;

struct codec {
    const char* name;
    uint16_t number;
    uint16_t predictor;
};

constexpr codec in_pieces[] = {
    {"LZW", COMPRESSION_LZW, 1},           {"LZW, predicted", COMPRESSION_LZW, 2},
    {"PackBits", COMPRESSION_PACKBITS, 1}, {"JPEG", COMPRESSION_JPEG, 1},
    {"ZSTD", COMPRESSION_ZSTD, 1},         {"ZSTD, predicted", COMPRESSION_ZSTD, 2},
    {"PixarLog", COMPRESSION_PIXARLOG, 1},
};

constexpr codec in_one_call[] = {
    {"Deflate", COMPRESSION_ADOBE_DEFLATE, 1},
    {"LERC", COMPRESSION_LERC, 1},
};

// Without CCITTRLEW: the library cannot read the strips it writes.
constexpr uint16_t fax_codecs[] = {COMPRESSION_CCITTRLE, COMPRESSION_CCITTFAX3,
                                   COMPRESSION_CCITTFAX4};

// A coarse pattern with some noise. Each codec compresses it differently.
std::vector<unsigned char> pattern(size_t count, unsigned seed)
{
    std::vector<unsigned char> bytes = noise_bytes(count, seed);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<unsigned char>(i / 3000 % 5 == 0 ? bytes[i] : i / 97 + bytes[i] % 3);
    }
    return bytes;
}

file_bytes encoded(const codec& by, uint32_t rows = height)
{
    encoded_tiff made;
    made.width = width;
    made.height = rows;
    made.samples = samples;
    made.compression = by.number;
    made.predictor = by.predictor;
    made.rows_per_strip = height;
    made.pixels = pattern(size_t{width} * rows * samples, by.number);
    return encode_tiff(made);
}

// One bit a sample, which is not drawn: fax strips of grey pictures are never that large.
file_bytes fax(uint16_t compression)
{
    encoded_tiff made;
    made.width = 4096;
    made.height = made.rows_per_strip = 700;
    made.bits = made.samples = 1;
    made.photometric = PHOTOMETRIC_PALETTE;
    made.compression = compression;
    return encode_tiff(made);
}

// A picture of one strip, used by most tests.
const file_bytes& sound(const codec& by)
{
    static std::map<std::string, file_bytes> made;
    file_bytes& file = made[by.name];
    if (file.empty()) {
        file = encoded(by);
    }
    return file;
}

size_t end_of_strips(const file_bytes& file)
{
    uint32_t directory = 0;
    memcpy(&directory, &file[4], sizeof directory);
    return directory;
}

// Changes one value of a tag in a file written by the library; least significant byte first.
void set_tag(file_bytes& file, unsigned tag, size_t index, uint32_t value)
{
    constexpr size_t entry_size = 12;
    size_t entry = end_of_strips(file) + 2;
    while (file[entry] + file[entry + 1] * 256U != tag) {
        entry += entry_size;
        ASSERT_LT(entry + entry_size, file.size());
    }
    uint32_t place = static_cast<uint32_t>(entry) + 8;
    if (file[entry + 4] > 1) { // too many values for the entry itself
        memcpy(&place, &file[place], sizeof place);
    }
    memcpy(&file[place + 4 * index], &value, sizeof value);
}

class DecodeTiffLargeStrip : public tiff_test {
protected:
    // Pixels and messages must equal those of the rules, which read each strip in one call.
    void expect_as_one_call(const file_bytes& file)
    {
        ASSERT_TRUE(expect_drawn_by_rules(file, {.before = 0x5A}));
        EXPECT_TRUE(printed_by_library == expected_from_library)
            << printed_by_library.substr(0, 300) << "instead of\n"
            << expected_from_library.substr(0, 300);
    }

    // Damages a place near the start with noise, and one near the end with zeros.
    void expect_damage_as_one_call(const file_bytes& sound)
    {
        const size_t strips = end_of_strips(sound) - 8;
        constexpr size_t count = 40;
        const file_bytes noise = noise_bytes(count, 1);
        file_bytes damaged = sound;
        std::copy(noise.begin(), noise.end(), damaged.begin() + 8 + static_cast<long>(strips / 99));
        expect_as_one_call(damaged);
        damaged = sound;
        std::fill_n(damaged.begin() + 8 + static_cast<long>(strips / 100 * 96), count, 0);
        expect_as_one_call(damaged);
    }
};

TEST_F(DecodeTiffLargeStrip, EachCodecMatchesOneCall)
{
    for (const auto& [codecs, pieces] :
         {std::pair{std::span<const codec>(in_pieces), true}, {in_one_call, false}}) {
        for (const codec& by : codecs) {
            if (TIFFIsCODECConfigured(by.number) == 0) {
                continue;
            }
            SCOPED_TRACE(by.name);
            expect_as_one_call(sound(by));
            EXPECT_EQ(printed_by_library, "");
            EXPECT_EQ(scripted::log.idle_rounds > 1, pieces);
        }
    }
}

TEST_F(DecodeTiffLargeStrip, FurtherStripsMatchOneCall)
{
    expect_as_one_call(encoded({"LZW, predicted", COMPRESSION_LZW, 2}, 2 * height));
    EXPECT_EQ(printed_by_library, "");
    EXPECT_GT(scripted::log.idle_rounds, 3U);
    expect_as_one_call(encoded({"JPEG", COMPRESSION_JPEG, 1}, 2 * height));
    EXPECT_EQ(printed_by_library, "");
    EXPECT_GT(scripted::log.idle_rounds, 3U);
}

TEST_F(DecodeTiffLargeStrip, DamageMatchesOneCall)
{
    for (const codec& by : in_pieces) {
        if (TIFFIsCODECConfigured(by.number) != 0) {
            SCOPED_TRACE(by.name);
            expect_damage_as_one_call(sound(by));
        }
    }
}

TEST_F(DecodeTiffLargeStrip, StripThatIsNotCompleteInTheFileIsNotReadInPart)
{
    for (const codec& by : in_pieces) {
        if (by.predictor != 1 || TIFFIsCODECConfigured(by.number) == 0) {
            continue;
        }
        SCOPED_TRACE(by.name);
        file_bytes file = sound(by);
        set_tag(file, 279, 0, static_cast<uint32_t>(file.size()));
        expect_as_one_call(file);
        EXPECT_THAT(printed, testing::HasSubstr("returned too many bytes"));
        EXPECT_THAT(printed_by_library, testing::HasSubstr("Read error at scanline"));
    }
}

TEST_F(DecodeTiffLargeStrip, MessagesAboutTheNextStripNameTheSameRow)
{
    for (const codec& by : in_pieces) {
        if (by.predictor != 1 || TIFFIsCODECConfigured(by.number) == 0) {
            continue;
        }
        SCOPED_TRACE(by.name);
        file_bytes file = encoded(by, 2 * height);
        set_tag(file, 279, 1, static_cast<uint32_t>(file.size()));
        expect_as_one_call(file);
        EXPECT_THAT(printed_by_library, testing::HasSubstr("Read error at scanline"));
        EXPECT_GT(scripted::log.idle_rounds, 3U);
    }
}

TEST_F(DecodeTiffLargeStrip, MessagesAboutASmallStripAfterItArePrinted)
{
    file_bytes file = encoded({"LZW", COMPRESSION_LZW, 1}, height + 5);
    set_tag(file, 279, 1, static_cast<uint32_t>(file.size()));
    expect_as_one_call(file);
    EXPECT_THAT(printed_by_library, testing::HasSubstr("Read error at scanline"));
}

TEST_F(DecodeTiffLargeStrip, TallStripsRepeatTheirFirstRows)
{
    encoded_tiff made;
    made.width = 16384;
    made.height = made.rows_per_strip = 70;
    made.photometric = 5;
    made.samples = 5;
    ASSERT_TRUE(expect_drawn_by_rules(encode_tiff(made), {.before = 0x5A}));
    EXPECT_GT(scripted::log.idle_rounds, 2U);
}

TEST_F(DecodeTiffLargeStrip, SeparatePlanesMatchOneCall)
{
    encoded_tiff made;
    made.width = 16384;
    made.height = made.rows_per_strip = 200;
    made.planes = 2;
    expect_as_one_call(encode_tiff(made));
    EXPECT_GT(scripted::log.idle_rounds, 1U);
}

// --- strips that only one call decodes ----------------------------------------------------------

// The oldest LZW TIFFs have the opposite bit order: literals of 9 bits, least significant bit
// first, with a clear code before every 200 literals.
file_bytes old_lzw(size_t count)
{
    constexpr unsigned clear = 256;
    file_bytes strip;
    unsigned bits = 0;
    unsigned held = 0;
    const auto put = [&](unsigned code) {
        bits |= code << held;
        for (held += 9; held >= 8; held -= 8) {
            strip.push_back(static_cast<unsigned char>(bits));
            bits >>= 8;
        }
    };
    const file_bytes bytes = pattern(count, 3);
    for (size_t i = 0; i < count; ++i) {
        if (i % 200 == 0) {
            put(clear);
        }
        put(bytes[i]);
    }
    put(clear + 1);
    put(0);
    return strip;
}

TEST_F(DecodeTiffLargeStrip, MessageThatTheLibraryPrintsOncePerFileIsPrintedOnce)
{
    tiff_spec spec = plain_tiff(width, height, samples, 2);
    spec.set_short(259, {COMPRESSION_LZW});
    spec.strips = {old_lzw(size_t{width} * height * samples)};
    const std::string warning = "TIFF WARNING: LZWPreDecode: Old-style LZW codes, convert file\n";
    expect_as_one_call(write_tiff(spec));
    EXPECT_EQ(printed + printed_by_library, warning);
    EXPECT_GT(scripted::log.idle_rounds, 1U);
    spec.strips[0].resize(spec.strips[0].size() / 2);
    expect_as_one_call(write_tiff(spec));
    EXPECT_EQ(printed_by_library.find(warning), 0U);
    EXPECT_THAT(printed_by_library, testing::HasSubstr("TIFF WARNING: LZWDecodeCompat: "));
}

// The library warns whenever it starts the strip, and the JPEG lacks some of the rows.
TEST_F(DecodeTiffLargeStrip, MessageAboutAStripIsNotRepeated)
{
    file_bytes file = sound({"JPEG", COMPRESSION_JPEG, 1});
    set_tag(file, 257, 0, height + 8);
    set_tag(file, 278, 0, height + 8);
    expect_as_one_call(file);
    EXPECT_THAT(printed_by_library, testing::HasSubstr("Improper JPEG strip/tile size"));
    EXPECT_EQ(std::count(printed_by_library.begin(), printed_by_library.end(), '\n'), 1);
    EXPECT_EQ(pixel(0, height), (std::vector<unsigned>{16, 128, 128}));
}

// --- signals and clients ------------------------------------------------------------------------

TEST_F(DecodeTiffLargeStrip, SignalEndsAStripSilently)
{
    for (const codec& by : in_pieces) {
        if (TIFFIsCODECConfigured(by.number) == 0) {
            continue;
        }
        SCOPED_TRACE(by.name);
        start_over();
        ASSERT_TRUE(open(sound(by), 0x5A));
        scripted::plan.die_after_idle = 2; // the first round takes place before the strip
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(printed + printed_by_library, "");
        EXPECT_EQ(scripted::log.idle_rounds, 2U);
        EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""}));
        EXPECT_EQ(pixel(0, 0), (std::vector<unsigned>{16, 128, 128}));
        EXPECT_EQ(pixel(width - 1, height - 1), (std::vector<unsigned>{16, 128, 128}));
    }
}

TEST_F(DecodeTiffLargeStrip, SignalEndsReadingSilentlyWithAnyCodec)
{
    constexpr uint16_t compressions[] = {COMPRESSION_NONE, COMPRESSION_ADOBE_DEFLATE,
                                         COMPRESSION_LZW};
    for (const uint16_t compression : compressions) {
        SCOPED_TRACE(compression);
        encoded_tiff made; // larger than one read
        made.width = 16384;
        made.height = 151;
        made.rows_per_strip = 150;
        made.compression = compression;
        start_over();
        ASSERT_TRUE(open(encode_tiff(made), 0x5A));
        scripted::plan.die_after_idle = 1;
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(printed + printed_by_library, "");
        EXPECT_EQ(pixel(0, 0), (std::vector<unsigned>{16, 128, 128}));
        EXPECT_EQ(pixel(16383, 150), (std::vector<unsigned>{16, 128, 128}));
    }
}

TEST_F(DecodeTiffLargeStrip, SignalEndsDrawingWithBlackBelow)
{
    encoded_tiff made;
    made.width = 16384;
    made.height = 301;
    made.rows_per_strip = 300;
    made.compression = COMPRESSION_NONE;
    made.pixels.assign(size_t{16384} * 301 * 3, 255);
    ASSERT_TRUE(open(encode_tiff(made), 0x5A));
    scripted::plan.die_after_idle = 2;
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed + printed_by_library, "");
    EXPECT_EQ(pixel(0, 0), (std::vector<unsigned>{235, 128, 128}));
    EXPECT_EQ(pixel(0, 299), (std::vector<unsigned>{16, 128, 128}));
    EXPECT_EQ(pixel(0, 300), (std::vector<unsigned>{16, 128, 128}));
}

TEST_F(DecodeTiffLargeStrip, FaxThatIsNotDrawnIsReadInPiecesToo)
{
    for (const uint16_t compression : fax_codecs) {
        SCOPED_TRACE(compression);
        const file_bytes file = fax(compression);
        expect_as_one_call(file);
        EXPECT_EQ(printed + printed_by_library, "");
        EXPECT_GT(scripted::log.idle_rounds, 1U);
        expect_damage_as_one_call(file);
        start_over();
        ASSERT_TRUE(open(file));
        scripted::plan.die_after_idle = 2;
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(scripted::log.idle_rounds, 2U);
    }
}

// --- memory -------------------------------------------------------------------------------------

// The peak memory use of the process since the last call of reset_peak().
size_t peak_kib()
{
    std::ifstream status("/proc/self/status");
    std::string word;
    size_t kib = 0;
    while (status >> word) {
        if (word == "VmHWM:") {
            status >> kib;
        }
    }
    return kib;
}

bool reset_peak()
{
    std::ofstream refs("/proc/self/clear_refs");
    refs << 5 << std::flush;
    return refs.good();
}

TEST_F(DecodeTiffLargeStrip, SamplesThatAreNotDrawnNeedTheMemoryOfOneRow)
{
    if (!reset_peak()) {
        GTEST_SKIP() << "the kernel cannot reset the peak memory use";
    }
    encoded_tiff made;
    made.width = 1024;
    made.height = made.rows_per_strip = 500;
    made.bits = 512; // 96 MB in total
    made.pixels.assign(size_t{1024} * 500 * 3 * 64, 0);
    const file_bytes file = encode_tiff(made);
    made.pixels = {};
    made.pixels.shrink_to_fit();
    ASSERT_TRUE(open(file));
    ASSERT_TRUE(reset_peak());
    const size_t before = peak_kib();
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed + printed_by_library,
              "WARNING: TIFF uses large strip size. This is known to cause decoding bugs in "
              "libtiff that may cause display problems.\n"
              "         Consider re-saving the image in a program that subdivides the image "
              "correctly.\n"
              "         This message can appear for large TIFFs converted by ImageMagick.\n");
    EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""}));
    EXPECT_EQ(pixel(1023, 499), (std::vector<unsigned>{16, 128, 128}));
    EXPECT_LT(peak_kib() - before, size_t{30} << 10);
}

} // namespace
