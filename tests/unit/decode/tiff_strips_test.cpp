// The strip loop against a plain version of the rules: heights of strips and pictures, failures,
// early ends, and unusual results of the library.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "platform/run_state.h"
#include "tests/unit/decode/tiff_fixture.h"

namespace {

class DecodeTiffStrips : public tiff_test {};

encoded_tiff picture(uint16_t photometric, uint16_t samples, uint32_t height, uint32_t strip)
{
    encoded_tiff made;
    made.width = 5;
    made.height = height;
    made.photometric = photometric;
    made.samples = samples;
    made.rows_per_strip = strip;
    return made;
}

constexpr std::pair<uint16_t, uint16_t> models[] = {{2, 3}, {2, 4}, {1, 1}, {0, 2},
                                                    {6, 3}, {5, 4}, {5, 5}, {3, 1}};

TEST_F(DecodeTiffStrips, EveryStripHeightAndHeightAroundABandOf64)
{
    for (const auto& [photometric, samples] : {std::pair{1, 1}, std::pair{1, 2}, std::pair{5, 4}}) {
        for (const uint32_t height : {1U, 2U, 63U, 64U, 65U, 100U, 128U, 129U, 200U, 230U}) {
            for (const uint32_t strip :
                 {1U, 2U, 7U, 63U, 64U, 65U, 70U, 100U, 128U, 150U, 500U, 0x80000001U, ~0U}) {
                SCOPED_TRACE(testing::Message() << photometric << " " << height << " " << strip);
                const auto file =
                    encode_tiff(picture(static_cast<uint16_t>(photometric),
                                        static_cast<uint16_t>(samples), height, strip));
                ASSERT_TRUE(expect_drawn_by_rules(file, {.before = 0x5A}));
                EXPECT_EQ(tiff_stripheight, strip);
            }
        }
    }
}

TEST_F(DecodeTiffStrips, EveryStripHeightAndHeightAroundABandOf2048)
{
    for (const auto& [photometric, samples] : {std::pair{2, 4}, std::pair{3, 1}, std::pair{6, 3}}) {
        for (const uint32_t height : {2047U, 2048U, 2049U, 4200U}) {
            for (const uint32_t strip : {3U, 2047U, 2048U, 2049U, 3000U, 4200U, 0x80000001U}) {
                SCOPED_TRACE(testing::Message() << photometric << " " << height << " " << strip);
                const auto file =
                    encode_tiff(picture(static_cast<uint16_t>(photometric),
                                        static_cast<uint16_t>(samples), height, strip));
                ASSERT_TRUE(expect_drawn_by_rules(file, {.before = 0x5A}));
            }
        }
    }
}

TEST_F(DecodeTiffStrips, MappingFailuresEndTheDecodeInEachPlaneAndPass)
{
    for (const auto& [photometric, samples] : models) {
        for (const uint32_t strip : {3U, 70U}) {
            const auto file = encode_tiff(picture(photometric, samples, 150, strip));
            for (size_t failing = 1; failing <= 10; ++failing) {
                SCOPED_TRACE(testing::Message() << photometric << " " << samples << " " << failing);
                ASSERT_TRUE(
                    expect_drawn_by_rules(file, {.before = 0x5A, .failing_mapping = failing}));
            }
        }
    }
}

TEST_F(DecodeTiffStrips, UnmappableAlphaIsReportedAsVByTwoDecoders)
{
    for (const auto& [photometric, samples, planes, name] :
         {std::tuple{2, 4, 4, 'V'}, std::tuple{1, 2, 2, 'A'}, std::tuple{5, 5, 4, 'A'}}) {
        ASSERT_TRUE(open(encode_tiff(
            picture(static_cast<uint16_t>(photometric), static_cast<uint16_t>(samples), 9, 3))));
        scripted::plan.fail_mapping = planes;
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(printed, std::string("Failed to memory-map ") + name + " plane\n");
        start_over();
    }
    // The library opens such pictures only with three samples.
    failing_calls::plan.tiff_samples = 4;
    ASSERT_TRUE(open(encode_tiff(picture(6, 3, 9, 3))));
    scripted::plan.fail_mapping = 4;
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, "Failed to memory-map V plane\n");
}

TEST_F(DecodeTiffStrips, SignalsStopBeforeTheNextStrip)
{
    for (const auto& [photometric, samples] : models) {
        for (const uint32_t strip : {3U, 70U}) {
            const auto file = encode_tiff(picture(photometric, samples, 150, strip));
            for (const size_t passes : {1U, 2U, 3U}) {
                SCOPED_TRACE(testing::Message() << photometric << " " << samples << " " << passes);
                ASSERT_TRUE(expect_drawn_by_rules(file, {.before = 0x5A, .passes = passes}));
            }
        }
    }
}

TEST_F(DecodeTiffStrips, SignalBeforeTheFirstStripDrawsNothing)
{
    ASSERT_TRUE(open(encode_tiff(picture(2, 3, 9, 3)), 0x5A));
    DIE4 = 1;
    EXPECT_EQ(decode(), 0);
    DIE4 = 0;
    const file_bytes left = allocation();
    EXPECT_EQ(std::count(left.begin(), left.end(), 0x5A), static_cast<long>(left.size()));
    ASSERT_EQ(scripted::log.status.size(), 1U);
    EXPECT_EQ(scripted::log.status[0], (scripted::status_line{100, ""}));
    EXPECT_EQ(scripted::log.mappings, 0U);
}

TEST_F(DecodeTiffStrips, TallStripRepeatsItsFirstRows)
{
    ASSERT_TRUE(open(encode_tiff(picture(1, 1, 100, 100))));
    EXPECT_EQ(decode(), 0);
    const file_bytes drawn = allocation();
    EXPECT_EQ(memcmp(&drawn[0], &drawn[64 * 16], 36 * 16), 0);
    EXPECT_NE(memcmp(&drawn[0], &drawn[1 * 16], 5), 0);
}

TEST_F(DecodeTiffStrips, TallStripIsFetchedOnce)
{
    std::vector<uint32_t> asked;
    failing_calls::plan.tiff_read_strip = [&asked](uint32_t strip, unsigned char*, int64_t size) {
        asked.push_back(strip);
        return size;
    };
    ASSERT_TRUE(open(encode_tiff(picture(1, 1, 640, 640))));
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(asked, std::vector<uint32_t>(1, 0));
    EXPECT_EQ(scripted::log.mappings, 10U);
    EXPECT_EQ(scripted::log.idle_rounds, 10U);
}

// --- unusual results of the library -------------------------------------------------------------

// Bytes of the strip from its start, as if it were complete.
int64_t give(uint32_t strip, unsigned char* to, int64_t size)
{
    const auto bytes = noise_bytes(static_cast<size_t>(size), strip + 7);
    memcpy(to, bytes.data(), bytes.size());
    return size;
}

using reader = std::function<int64_t(uint32_t, unsigned char*, int64_t)>;

// Each result depends only on the strip and the size, since the two sides may call a different
// number of times.
const std::pair<const char*, reader> odd_readers[] = {
    {"whole", give},
    {"always short", [](uint32_t strip, unsigned char* to,
                        int64_t size) { return give(strip, to, std::min<int64_t>(size, 11)); }},
    {"byte by byte", [](uint32_t strip, unsigned char* to, int64_t) { return give(strip, to, 1); }},
    {"error", [](uint32_t, unsigned char*, int64_t) { return int64_t{-1}; }},
    {"error in strip 1", [](uint32_t strip, unsigned char* to,
                            int64_t size) { return strip == 1 ? -1 : give(strip, to, size); }},
    {"error in strip 1 after writing",
     [](uint32_t strip, unsigned char* to, int64_t size) {
         const int64_t given = give(strip, to, size);
         return strip == 1 ? -1 : given;
     }},
    {"nothing in strip 1", [](uint32_t strip, unsigned char* to,
                              int64_t size) { return strip == 1 ? 0 : give(strip, to, size); }},
    {"too much in strip 1",
     [](uint32_t strip, unsigned char* to, int64_t size) {
         return give(strip, to, size) + (strip == 1 ? 1 : 0);
     }},
    {"less than a row, then nothing",
     [](uint32_t strip, unsigned char* to, int64_t size) {
         return size <= 4 ? 0 : give(strip, to, 4);
     }},
    {"half, then nothing",
     [](uint32_t strip, unsigned char* to, int64_t size) {
         return size % 5 != 0 ? 0 : give(strip, to, size / 5 * 3 + 1);
     }},
    {"half, then an error",
     [](uint32_t strip, unsigned char* to, int64_t size) {
         return size % 5 != 0 ? -1 : give(strip, to, size / 5 * 3 + 1);
     }},
    {"only the start of it written",
     [](uint32_t strip, unsigned char* to, int64_t size) {
         give(strip, to, std::min<int64_t>(size, 101));
         return size;
     }},
    {"only even strips written",
     [](uint32_t strip, unsigned char* to, int64_t size) {
         return strip % 2 == 0 ? give(strip, to, size) : size;
     }},
};

TEST_F(DecodeTiffStrips, UnusualResultsOfTheLibrary)
{
    for (const auto& [photometric, samples] : models) {
        for (const uint16_t planes : {uint16_t{1}, uint16_t{2}}) {
            // The last pass requests the strip of 150 rows again with fewer rows.
            for (const uint32_t strip : {3U, 70U, 150U}) {
                encoded_tiff made = picture(photometric, samples, 150, strip);
                made.planes = planes;
                const auto file = encode_tiff(made);
                for (const auto& [name, read] : odd_readers) {
                    SCOPED_TRACE(testing::Message() << photometric << " " << samples << " "
                                                    << planes << " " << strip << " " << name);
                    ASSERT_TRUE(expect_drawn_by_rules(file, {.before = 0x5A, .read_strip = read}));
                }
            }
        }
    }
}

TEST_F(DecodeTiffStrips, ErrorsOfTheLibraryAreTooManyBytes)
{
    ASSERT_TRUE(open(encode_tiff(picture(2, 3, 9, 3))));
    failing_calls::plan.tiff_read_strip = [](uint32_t, unsigned char*, int64_t) { return -1; };
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, "TIFFReadEncodedStrip() returned too many bytes\n");
    EXPECT_EQ(pixel(0, 0), (std::vector<unsigned>{16, 128, 128}));
}

TEST_F(DecodeTiffStrips, InterruptedReadsAreRetried)
{
    const auto file = encode_tiff(picture(2, 3, 9, 3));
    ASSERT_TRUE(expect_drawn_by_rules(file));
    const file_bytes undisturbed = allocation();
    for (int which = 1; which <= 3; ++which) {
        start_over();
        ASSERT_TRUE(open(file));
        failing_calls::plan.read = which;
        failing_calls::plan.read_errno = EINTR;
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(failing_calls::plan.read, 0);
        EXPECT_EQ(printed + printed_by_library, "");
        EXPECT_TRUE(allocation() == undisturbed);
    }
}

TEST_F(DecodeTiffStrips, DiskErrorIsReportedOnceAndEndsThePicture)
{
    encoded_tiff made = picture(2, 3, 9, 3);
    made.pixels.assign(size_t{9} * 5 * 3, 255);
    ASSERT_TRUE(open(encode_tiff(made)));
    failing_calls::plan.read = 2; // of the second strip
    failing_calls::plan.read_errno = EIO;
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, "Error while reading the picture: Input/output error\n"
                       "TIFFReadEncodedStrip() returned too many bytes\n");
    EXPECT_EQ(pixel(4, 2), (std::vector<unsigned>{235, 128, 128}));
    EXPECT_EQ(pixel(0, 3), (std::vector<unsigned>{16, 128, 128}));
    EXPECT_EQ(pixel(4, 8), (std::vector<unsigned>{16, 128, 128}));
}

TEST_F(DecodeTiffStrips, EmptyReadsAreReported)
{
    ASSERT_TRUE(open(encode_tiff(picture(2, 3, 9, 3))));
    failing_calls::plan.tiff_read_strip = [](uint32_t, unsigned char*, int64_t) { return 0; };
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, "TIFFReadEncodedStrip() returned 0 prematurely\n");
}

TEST_F(DecodeTiffStrips, ReadsAreLimitedToTheStripSizeAfterAWarning)
{
    const auto file = encode_tiff(picture(1, 1, 9, 9));
    ASSERT_TRUE(open(file));
    tiff_stripsize = 4 * 5 + 2;
    const auto wanted = draw_tiff_literally(file);
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, wanted.printed);
    EXPECT_EQ(printed.find("WARNING: bytes for reading strip exceed recommended stripsize\n"), 0U);
    EXPECT_TRUE(allocation() == wanted.allocation);
}

TEST_F(DecodeTiffStrips, EarlierStripLeavesNothingInSeparatePlanes)
{
    // The rows have one sample but three are read, so the end of the last row lies behind the
    // strip.
    encoded_tiff made = picture(2, 3, 5, 5);
    made.planes = 2;
    made.pixels.assign(75, 255);
    ASSERT_TRUE(open(encode_tiff(made)));
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(pixel(0, 0), (std::vector<unsigned>{235, 128, 128}));
    EXPECT_EQ(pixel(4, 2), (std::vector<unsigned>{235, 128, 128}));
    EXPECT_EQ(pixel(4, 4), (std::vector<unsigned>{16, 128, 128}));
}

} // namespace
