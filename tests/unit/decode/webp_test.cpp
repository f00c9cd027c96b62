// Valid pictures, and conditions that prevent a decode.
#include <algorithm>
#include <string_view>

#include <gmock/gmock.h>

#include "bin/decode/webp.h"
#include "bin/examine/image_state.h"
#include "bin/examine/webp.h"
#include "bin/framebuffer/layout.h"
#include "platform/run_state.h"
#include "tests/support/failing_calls.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/webp_writer.h"
#include "tests/unit/decode/webp_fixture.h"

using testing::Each;
using testing::IsEmpty;

namespace {

using WebpDecoding = webp_test;

constexpr char decoded[] = "WebP decoded\n";

void append_chunk(file_bytes& file, std::string_view name, const file_bytes& content)
{
    file.insert(file.end(), name.begin(), name.end());
    for (unsigned shift = 0; shift < 32; shift += 8) {
        file.push_back(static_cast<unsigned char>(content.size() >> shift));
    }
    file.insert(file.end(), content.begin(), content.end());
    file.resize(file.size() + content.size() % 2);
}

// The picture of a plain lossy file in a container that announces alpha but has none.
file_bytes with_missing_alpha(const file_bytes& lossy, int width, int height)
{
    constexpr size_t riff_header = 12;
    constexpr unsigned char alpha_flag = 0x10;
    file_bytes chunks = {'W', 'E', 'B', 'P'};
    append_chunk(chunks, "VP8X",
                 {alpha_flag, 0, 0, 0, static_cast<unsigned char>(width - 1), 0, 0,
                  static_cast<unsigned char>(height - 1), 0, 0});
    chunks.insert(chunks.end(), lossy.begin() + riff_header, lossy.end());
    file_bytes file;
    append_chunk(file, "RIFF", chunks);
    return file;
}

TEST_F(WebpDecoding, PicturesOfManyKindsAreDrawnAsByTheLibrary)
{
    for (const char* name :
         {"lossless-alpha.webp", "lossless-bricks.webp", "lossless-two-colours.webp",
          "lossy-128x128.webp", "lossy-176x144.webp", "lossy-alpha-128x128.webp",
          "lossy-alpha-odd-height.webp", "lossy-alpha.webp", "lossy-bricks.webp", "size-13x1.webp",
          "size-1x1.webp"}) {
        const file_bytes file = webp_of_tests(name);
        ASSERT_TRUE(open(file)) << name;
        EXPECT_EQ(decode(), 0) << name;
        EXPECT_EQ(printed, decoded) << name;
        EXPECT_EQ(scripted::log.status, std::vector<scripted::status_line>({{100, ""}})) << name;
        EXPECT_EQ(webp_image, nullptr) << name;
        EXPECT_TRUE(allocation() == assembled_from_own_planes(file)) << name;
    }
}

TEST_F(WebpDecoding, EverySizeUpTo33IsDrawnByTheRules)
{
    for (int width = 1; width <= 33; ++width) {
        for (int height = 1; height <= 33; ++height) {
            const file_bytes file = lossy_webp(width, height, noise(width, height, false), 60);
            ASSERT_TRUE(open(file, 0x55));
            const drawn_picture expected = drawn_by_the_rules(file, 0x55);
            ASSERT_EQ(expected.status, VP8_STATUS_OK);
            ASSERT_EQ(decode(), 0);
            ASSERT_TRUE(allocation() == expected.area) << width << " x " << height;
        }
    }
}

TEST_F(WebpDecoding, EverySizeWithAlphaIsDrawnByTheRules)
{
    for (int size = 1; size <= 33; ++size) {
        const int other = size * 7 % 33 + 1;
        for (const file_bytes& file : {lossless_webp(size, other, noise(size, other, true)),
                                       lossless_webp(other, size, noise(other, size, true)),
                                       lossy_webp(size, other, noise(size, other, true), 40)}) {
            ASSERT_TRUE(open(file, 0x55));
            ASSERT_EQ(image_has_alpha_channel, 1);
            const drawn_picture expected = drawn_by_the_rules(file, 0x55);
            ASSERT_EQ(decode(), 0);
            ASSERT_TRUE(allocation() == expected.area) << size << " and " << other;
        }
    }
}

TEST_F(WebpDecoding, PaddingIsBlackAndLumaBelowThePictureIsUnchanged)
{
    ASSERT_TRUE(open(lossless_webp(17, 17, noise(17, 17, true)), 0x55));
    ASSERT_EQ(decode(), 0);
    const unsigned char* area = scripted::buffer();
    for (uint64_t y = 0; y < 17; ++y) {
        EXPECT_EQ(area[y * 32 + 17], 16);
        EXPECT_EQ(area[y * 32 + 31], 16);
        EXPECT_EQ(area[image_offset_A + y * 32 + 17], 16);
        EXPECT_EQ(area[image_offset_A + y * 32 + 31], 16);
    }
    constexpr uint64_t below = 17 * 32;
    EXPECT_EQ(area[below], 0x55);
    EXPECT_EQ(area[image_offset_U - 1], 0x55);
    for (uint64_t y = 0; y < 16; ++y) {
        EXPECT_EQ(area[image_offset_U + y * 16 + 9], 128);
        EXPECT_EQ(area[image_offset_V + y * 16 + 15], 128);
    }
}

TEST_F(WebpDecoding, ChromaRowsBelowThePictureRepeatItsLast)
{
    for (const int height : {1, 16, 17, 18, 31}) {
        ASSERT_TRUE(open(lossless_webp(17, height, noise(17, height, false)), 0x55));
        ASSERT_EQ(decode(), 0);
        const auto drawn = static_cast<uint64_t>((height + 1) / 2);
        const auto rows = static_cast<uint64_t>(image_buffer_height) / 2;
        for (const uint64_t offset : {image_offset_U, image_offset_V}) {
            const unsigned char* plane = scripted::buffer() + offset;
            const file_bytes last(plane + (drawn - 1) * 16, plane + drawn * 16);
            for (uint64_t y = drawn; y < rows; ++y) {
                EXPECT_EQ(file_bytes(plane + y * 16, plane + (y + 1) * 16), last) << height;
            }
        }
        EXPECT_EQ(scripted::buffer()[image_scanline_data_buffer_offset], 0x55);
    }
}

TEST_F(WebpDecoding, AnnouncedAlphaThatIsMissingIsOpaque)
{
    const file_bytes file =
        with_missing_alpha(lossy_webp(21, 19, noise(21, 19, false), 60), 21, 19);
    ASSERT_TRUE(open(file));
    ASSERT_EQ(image_has_alpha_channel, 1);
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(printed, decoded);
    for (uint64_t y = 0; y < 19; ++y) {
        const unsigned char* row = scripted::buffer() + image_offset_A + y * image_stride_A;
        EXPECT_THAT(file_bytes(row, row + 21), Each(255));
    }
}

TEST_F(WebpDecoding, EachPlaneIsMappedOnce)
{
    ASSERT_TRUE(open(lossy_webp(20, 20, noise(20, 20, false), 60)));
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(scripted::log.mappings, 3U);
    ASSERT_TRUE(open(lossy_webp(20, 20, noise(20, 20, true), 60)));
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(scripted::log.mappings, 4U);
}

TEST_F(WebpDecoding, ValidPictureIsDrawnDespiteASignal)
{
    const file_bytes file = lossy_webp(20, 20, noise(20, 20, false), 60);
    ASSERT_TRUE(open(file));
    DIE4 = 1;
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, decoded);
    EXPECT_TRUE(allocation() == drawn_by_the_rules(file).area);
}

TEST_F(WebpDecoding, CleanUpAfterwardsMayRunTwice)
{
    ASSERT_TRUE(open(lossy_webp(20, 20, noise(20, 20, false), 60)));
    ASSERT_EQ(decode(), 0);
    EXPECT_TRUE(webp_deccfg_init);
    free_all_webp();
    EXPECT_FALSE(webp_deccfg_init);
    free_all_webp();
}

// --- conditions that prevent a decode -----------------------------------------------------------

class WebpRefusal : public webp_test {
protected:
    void expect_nothing_drawn(const std::string& message)
    {
        EXPECT_EQ(decode(), -1);
        EXPECT_EQ(printed, message + "WARNING: Failed to decode WebP\n");
        EXPECT_THAT(scripted::log.status, IsEmpty());
        EXPECT_EQ(webp_image, nullptr);
        EXPECT_THAT(allocation(), Each(0x55));
    }
};

TEST_F(WebpRefusal, LibraryThatCannotBeInitialised)
{
    ASSERT_TRUE(open(lossy_webp(20, 20, noise(20, 20, false), 60), 0x55));
    failing_calls::plan.webp_init = 1;
    expect_nothing_drawn("Failed to init WebP decoder\n");
    EXPECT_EQ(scripted::log.mappings, 0U);
    EXPECT_FALSE(webp_deccfg_init);
}

TEST_F(WebpRefusal, UnmappablePlane)
{
    const char* const messages[] = {
        "Failed to memory-map Y plane\n", "Failed to memory-map U plane\n",
        "Failed to memory-map V plane\n", "Failed to memory-map V plane\n"};
    for (int plane = 1; plane <= 4; ++plane) {
        ASSERT_TRUE(open(lossless_webp(20, 20, noise(20, 20, true)), 0x55));
        scripted::plan.fail_mapping = plane;
        expect_nothing_drawn(messages[plane - 1]);
        EXPECT_EQ(scripted::log.mappings, static_cast<uint64_t>(plane));
    }
}

TEST_F(WebpRefusal, MappedRangesAreExactlyThePlanes)
{
    const file_bytes file = lossless_webp(17, 17, noise(17, 17, true));
    ASSERT_TRUE(open(file));
    const std::pair<uint64_t, const char*> last_bytes[] = {
        {image_offset_U - 1, "Failed to memory-map Y plane\n"},
        {image_offset_V - 1, "Failed to memory-map U plane\n"},
        {image_offset_A - 1, "Failed to memory-map V plane\n"},
        {image_scanline_data_buffer_offset - 1, "Failed to memory-map V plane\n"}};
    for (const auto& [last, message] : last_bytes) {
        ASSERT_TRUE(open(file, 0x55));
        scripted::plan.unmappable = {last, 1};
        expect_nothing_drawn(message);
    }
    ASSERT_TRUE(open(file));
    scripted::plan.unmappable = {image_scanline_data_buffer_offset, 1};
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, decoded);
}

using WebpDecodingDeathTest = webp_test;

TEST_F(WebpDecodingDeathTest, NoPictureInMemory)
{
    webp_size = 1;
    EXPECT_DEATH(full_decode_webp_yuv(), "full_decode_webp_yuv.*webp_image != __null");
}

TEST_F(WebpDecodingDeathTest, PictureOfZeroBytes)
{
    ASSERT_TRUE(open(lossy_webp(20, 20, noise(20, 20, false), 60)));
    webp_size = 0;
    EXPECT_DEATH(full_decode_webp_yuv(), "full_decode_webp_yuv.*webp_size != 0");
}

} // namespace
