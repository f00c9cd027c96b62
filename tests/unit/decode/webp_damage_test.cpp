// Damaged pictures: what is drawn equals what the library draws on black, byte for byte.
#include <algorithm>
#include <malloc.h>
#include <sys/resource.h>

#include <gmock/gmock.h>

#include "bin/decode/webp.h"
#include "bin/examine/image_state.h"
#include "bin/examine/webp.h"
#include "bin/framebuffer/layout.h"
#include "platform/run_state.h"
#include "tests/support/child_process.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/webp_writer.h"
#include "tests/unit/decode/webp_fixture.h"

using testing::Each;

namespace {

constexpr char decoded[] = "WebP decoded\n";
constexpr char failed[] = "WARNING: Failed to decode WebP image\n";
constexpr unsigned char untouched = 0x55;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool address_sanitizer = true;
#elif defined(__has_feature)
constexpr bool address_sanitizer = __has_feature(address_sanitizer);
#else
constexpr bool address_sanitizer = false;
#endif

class WebpDamage : public webp_test {
protected:
    // False when examination already refuses the file, or decoding finds no error.
    bool fails_by_the_rules(const file_bytes& file)
    {
        if (!open(file, untouched)) {
            return false;
        }
        const drawn_picture expected = drawn_by_the_rules(file, untouched);
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(printed, expected.status == VP8_STATUS_OK ? decoded : failed);
        EXPECT_EQ(scripted::log.status, std::vector<scripted::status_line>({{100, ""}}));
        EXPECT_EQ(webp_image, nullptr);
        EXPECT_TRUE(allocation() == expected.area);
        return expected.status != VP8_STATUS_OK;
    }

    static file_bytes rows_of_plane(uint64_t offset, uint64_t stride, uint64_t first,
                                    uint64_t count)
    {
        const unsigned char* rows = scripted::buffer() + offset + first * stride;
        return {rows, rows + count * stride};
    }

    int bad_cuts(const file_bytes& file)
    {
        int bad = 0;
        for (size_t length = 16; length < file.size() && !HasFailure(); ++length) {
            bad += fails_by_the_rules(first_bytes(file, length)) ? 1 : 0;
            bad += fails_by_the_rules(short_bitstream(file, length)) ? 1 : 0;
            EXPECT_FALSE(HasFailure()) << "cut to " << length;
        }
        return bad;
    }

    int bad_changes(const file_bytes& file)
    {
        int bad = 0;
        for (size_t i = 0; i < file.size() && !HasFailure(); ++i) {
            file_bytes changed = file;
            changed[i] ^= static_cast<unsigned char>(1U << i % 8);
            if (open(changed) && image_width <= 4096 && image_height <= 4096) {
                bad += fails_by_the_rules(changed) ? 1 : 0;
            }
            EXPECT_FALSE(HasFailure()) << "changed at " << i;
        }
        return bad;
    }
};

// Has enough colours for several kinds of entropy codes, and few enough to stay small.
file_bytes coloured_field(int width, int height, bool alpha)
{
    file_bytes rgba = noise(width, height, alpha, 5);
    for (size_t i = 0; i < rgba.size(); ++i) {
        rgba[i] = static_cast<unsigned char>(i % 4 == 3 && !alpha ? 255 : rgba[i] & 0xC0);
    }
    return rgba;
}

TEST_F(WebpDamage, LossyPictureTruncatedAnywhere)
{
    EXPECT_GT(bad_cuts(lossy_webp(49, 45, coloured_field(49, 45, false), 30)), 100);
}

TEST_F(WebpDamage, LossyPictureWithAlphaTruncatedAnywhere)
{
    EXPECT_GT(bad_cuts(lossy_webp(49, 45, coloured_field(49, 45, true), 30)), 100);
}

TEST_F(WebpDamage, LosslessPictureTruncatedAnywhere)
{
    EXPECT_GT(bad_cuts(lossless_webp(49, 45, coloured_field(49, 45, false))), 100);
}

TEST_F(WebpDamage, LosslessPictureWithAlphaTruncatedAnywhere)
{
    EXPECT_GT(bad_cuts(lossless_webp(49, 45, coloured_field(49, 45, true))), 100);
}

TEST_F(WebpDamage, EachByteOfAnOddPictureChanged)
{
    EXPECT_GT(bad_changes(lossy_webp(17, 17, noise(17, 17, false), 50)), 0);
    EXPECT_GT(bad_changes(lossy_webp(17, 17, noise(17, 17, true), 50)), 0);
    EXPECT_GT(bad_changes(lossless_webp(17, 17, noise(17, 17, true))), 0);
}

TEST_F(WebpDamage, TruncatedRealFiles)
{
    EXPECT_TRUE(fails_by_the_rules(webp_of_tests("lossy-cut.webp")));
    EXPECT_TRUE(fails_by_the_rules(webp_of_tests("lossless-cut.webp")));
}

TEST_F(WebpDamage, RowsBeforeTheEndAreShown)
{
    const file_bytes file = lossy_webp(64, 256, noise(64, 256, false), 80);
    ASSERT_TRUE(open(file));
    const file_bytes whole = drawn_by_the_rules(file).area;
    ASSERT_TRUE(fails_by_the_rules(short_bitstream(file, file.size() * 3 / 4)));
    const file_bytes cut = allocation();
    EXPECT_TRUE(std::equal(whole.begin(), whole.begin() + 4096, cut.begin()));
    EXPECT_THAT(rows_of_plane(0, 64, 250, 6), Each(16));
}

TEST_F(WebpDamage, UndrawnPictureOfOddHeightIsBlackDownToTheLastChromaRow)
{
    const file_bytes file = lossless_webp(17, 17, noise(17, 17, true));
    ASSERT_TRUE(open(first_bytes(file, 40), untouched));
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(printed, failed);
    EXPECT_THAT(rows_of_plane(image_offset_Y, 32, 0, 17), Each(16));
    EXPECT_THAT(rows_of_plane(image_offset_Y, 32, 17, 15), Each(untouched));
    for (const uint64_t offset : {image_offset_U, image_offset_V}) {
        EXPECT_THAT(rows_of_plane(offset, 16, 0, 16), Each(128));
    }
    EXPECT_THAT(rows_of_plane(image_offset_A, 32, 0, 17), Each(16));
    EXPECT_THAT(rows_of_plane(image_offset_A, 32, 17, 15), Each(untouched));
}

TEST_F(WebpDamage, AnimationIsBlack)
{
    EXPECT_TRUE(fails_by_the_rules(webp_of_tests("animation.webp")));
    EXPECT_THAT(rows_of_plane(image_offset_Y, image_stride_Y, 0, 200), Each(16));
    EXPECT_TRUE(fails_by_the_rules(webp_animation_start(31, 1, true)));
}

// The buffer has 400 MB, 16 MB of which are the visible luma row.
TEST_F(WebpDamage, WidestCanvasIsOneBlackRow)
{
    ASSERT_TRUE(open(webp_animation_start(16777216, 1, false)));
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(printed, failed);
    EXPECT_EQ(scripted::buffer()[0], 16);
    EXPECT_EQ(scripted::buffer()[16777215], 16);
    EXPECT_EQ(scripted::buffer()[16777216], 0);
    EXPECT_EQ(scripted::buffer()[image_offset_U], 128);
    EXPECT_EQ(scripted::buffer()[image_scanline_data_buffer_offset - 1], 128);
}

TEST_F(WebpDamage, SignalSkipsTheSecondDraw)
{
    const file_bytes file = lossy_webp(64, 256, noise(64, 256, false), 80);
    ASSERT_TRUE(open(short_bitstream(file, file.size() * 3 / 4)));
    DIE4 = 1;
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, failed);
    EXPECT_EQ(scripted::log.status, std::vector<scripted::status_line>({{100, ""}}));
    EXPECT_THAT(rows_of_plane(0, 64, 0, 256), Each(16));
}

TEST_F(WebpDamage, OldMemoryContentsAreNeverShown)
{
    for (const bool alpha : {false, true}) {
        for (const file_bytes& file : {lossy_webp(49, 45, coloured_field(49, 45, alpha), 30),
                                       lossless_webp(49, 45, coloured_field(49, 45, alpha))}) {
            for (size_t length = 32; length <= file.size(); length += 7) {
                file_bytes seen[2];
                for (const int filling : {0x5A, 0xC3}) {
                    mallopt(M_PERTURB, filling);
                    if (open(short_bitstream(file, length))) {
                        decode();
                        seen[filling == 0x5A] = allocation();
                    }
                }
                ASSERT_TRUE(seen[0] == seen[1]) << length << " of " << file.size();
            }
        }
    }
    mallopt(M_PERTURB, 0);
}

TEST_F(WebpDamage, LackOfMemoryFailsThePicture)
{
    if (address_sanitizer) {
        GTEST_SKIP() << "the sanitizer needs the address space";
    }
    constexpr int size = 2048; // the library needs 16 MiB of working memory for it
    ASSERT_TRUE(open(lossless_webp(size, size, file_bytes(size_t{4} * size * size, 255))));
    testing::internal::CaptureStderr();
    const int ending = run_in_child([] {
        rlimit limit = {};
        getrlimit(RLIMIT_AS, &limit);
        limit.rlim_cur = UINT64_C(4) << 20; // less than the process uses already
        return setrlimit(RLIMIT_AS, &limit) == 0 ? full_decode_webp_yuv() : 99;
    });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), failed);
    EXPECT_EQ(ending, 0);
}

} // namespace
