#include <algorithm>
#include <cerrno>

#include "bin/examine/image_state.h"
#include "bin/examine/webp.h"
#include "tests/support/webp_writer.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

using bytes = std::vector<unsigned char>;

bytes pixels(int width, int height, unsigned char alpha)
{
    bytes rgba;
    for (int i = 0; i < width * height; ++i) {
        rgba.insert(rgba.end(), {static_cast<unsigned char>(i), 100, 200, alpha});
    }
    return rgba;
}

class WebpExamination : public ExamineFixture {
protected:
    static int examine(const bytes& file)
    {
        scripted::set_picture(file);
        return examine_webp_file();
    }

    void expect_refusal(const bytes& file, const std::string& message)
    {
        EXPECT_EQ(examine(file), 1);
        EXPECT_EQ(printed(), message);
        EXPECT_EQ(webp_image, nullptr);
    }
};

TEST_F(WebpExamination, LossyPictureIsReportedAndPublished)
{
    image_has_alpha_channel = image_is_monochrome = 7;
    image_decoded_frames = 7;
    const bytes file = lossy_webp(33, 17, pixels(33, 17, 255), 80);
    ASSERT_EQ(examine(file), 0);
    EXPECT_EQ(printed(), "WebP: 33 x 17 has_alpha=0 has_anim=0 formatcode=1\n");
    EXPECT_EQ(image_width, 33);
    EXPECT_EQ(image_height, 17);
    EXPECT_EQ(image_buffer_height, 32);
    EXPECT_EQ(image_chroma_x_shift, 1);
    EXPECT_EQ(image_chroma_y_shift, 1);
    EXPECT_EQ(image_has_alpha_channel, 0);
    EXPECT_EQ(image_is_monochrome, 0);
    EXPECT_EQ(image_decoded_frames, 1U);
    EXPECT_EQ(webp_size, file.size());
    EXPECT_TRUE(std::equal(file.begin(), file.end(), webp_image));
}

TEST_F(WebpExamination, AlphaGivesAnAlphaPlane)
{
    ASSERT_EQ(examine(lossless_webp(5, 5, pixels(5, 5, 100))), 0);
    EXPECT_EQ(printed(), "WebP: 5 x 5 has_alpha=1 has_anim=0 formatcode=2\n");
    EXPECT_EQ(image_has_alpha_channel, 1);
}

TEST_F(WebpExamination, AnimationIsOneFrameOfItsCanvasSize)
{
    ASSERT_EQ(examine(webp_animation_start(300, 200, true)), 0);
    EXPECT_EQ(printed(), "WebP: 300 x 200 has_alpha=1 has_anim=1 formatcode=0\n");
    EXPECT_EQ(image_width, 300);
    EXPECT_EQ(image_height, 200);
    EXPECT_EQ(image_decoded_frames, 1U);
}

TEST_F(WebpExamination, CanvasOfSixteenMillionColumnsIsAccepted)
{
    ASSERT_EQ(examine(webp_animation_start(16777216, 16, false)), 0);
    EXPECT_EQ(image_width, 16777216);
    EXPECT_EQ(image_buffer_height, 16);
}

TEST_F(WebpExamination, FifteenBytesAreTooSmall)
{
    expect_refusal(bytes(15, 'x'), "WebP file too small\n");
    expect_refusal({}, "WebP file too small\n");
    expect_refusal(bytes(16, 'x'), "Failed to read WebP bitstream features\n");
}

TEST_F(WebpExamination, SizeLimitIsOneLessThanSixteenMebibytes)
{
    bytes file = lossy_webp(3, 3, pixels(3, 3, 255), 80);
    file.resize(16777215, 0);
    ASSERT_EQ(examine(file), 0);
    EXPECT_EQ(webp_size, 16777215U);
    free_all_webp();
    printed();
    file.push_back(0);
    expect_refusal(file, "WebP file too large\n");
}

TEST_F(WebpExamination, UnknownSizeIsTooSmall)
{
    scripted::set_picture(lossy_webp(3, 3, pixels(3, 3, 255), 80));
    failing_calls::plan.lseek = 2; // the first call is the platform's own
    EXPECT_EQ(examine_webp_file(), 1);
    EXPECT_EQ(printed(), "WebP file too small\n");
}

TEST_F(WebpExamination, FailingRewindIsAReadingFailure)
{
    scripted::set_picture(lossy_webp(3, 3, pixels(3, 3, 255), 80));
    failing_calls::plan.lseek = 3;
    EXPECT_EQ(examine_webp_file(), 1);
    EXPECT_EQ(printed(), "Failed to read WebP\n");
    EXPECT_EQ(webp_image, nullptr);
}

TEST_F(WebpExamination, FailedAllocationIsRefused)
{
    failing_calls::plan.new_array = 1;
    expect_refusal(lossy_webp(3, 3, pixels(3, 3, 255), 80), "Cannot alloc memory for WebP\n");
}

TEST_F(WebpExamination, FailingReadIsReported)
{
    failing_calls::plan.read = 1;
    failing_calls::plan.read_errno = EIO;
    expect_refusal(lossy_webp(3, 3, pixels(3, 3, 255), 80),
                   "Error while reading the picture: Input/output error\nFailed to read WebP\n");
}

TEST_F(WebpExamination, InterruptedAndShortReadsAreContinued)
{
    const bytes file = lossy_webp(33, 17, pixels(33, 17, 255), 80);
    failing_calls::plan.read = 2;
    failing_calls::plan.read_errno = EINTR;
    failing_calls::plan.max_read = 3;
    ASSERT_EQ(examine(file), 0);
    EXPECT_TRUE(std::equal(file.begin(), file.end(), webp_image));
}

TEST_F(WebpExamination, FileThatShrinksIsAReadingFailure)
{
    scripted::set_picture(lossy_webp(33, 17, pixels(33, 17, 255), 80));
    failing_calls::plan.max_read = 10;
    failing_calls::plan.read_ends = 2;
    EXPECT_EQ(examine_webp_file(), 1);
    EXPECT_EQ(printed(), "Failed to read WebP\n");
    EXPECT_EQ(webp_image, nullptr);
}

TEST_F(WebpExamination, NoFileHandle)
{
    scripted::plan.file_handle_fails = true;
    expect_refusal(bytes(100, 'x'), "Unable to get file handle\n");
}

TEST_F(WebpExamination, EmptyPictureIsRefused)
{
    failing_calls::plan.webp_width = 1;
    expect_refusal(lossy_webp(3, 3, pixels(3, 3, 255), 80),
                   "WebP: 0 x 3 has_alpha=0 has_anim=0 formatcode=1\nInvalid WebP state\n");
    failing_calls::plan.webp_height = 1;
    expect_refusal(lossy_webp(3, 3, pixels(3, 3, 255), 80),
                   "WebP: 3 x 0 has_alpha=0 has_anim=0 formatcode=1\nInvalid WebP state\n");
}

TEST_F(WebpExamination, SecondExaminationIsABugAndKeepsTheFirst)
{
    ASSERT_EQ(examine(lossy_webp(3, 3, pixels(3, 3, 255), 80)), 0);
    printed();
    const uint8_t* const image = webp_image;
    EXPECT_EQ(examine_webp_file(), 1);
    EXPECT_EQ(printed(), "BUG: examine_webp_file() when already opened\n");
    EXPECT_EQ(webp_image, image);
}

TEST_F(WebpExamination, FileTruncatedAtEveryByteIsRefusedOrAccepted)
{
    const bytes whole = lossy_webp(9, 9, pixels(9, 9, 100), 80);
    for (size_t length = 0; length < whole.size(); ++length) {
        examine(bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)));
        free_all_webp();
        EXPECT_EQ(webp_image, nullptr);
    }
}

TEST_F(WebpExamination, CleanUpFreesTheDecodersOutputOnce)
{
    ASSERT_TRUE(WebPInitDecoderConfig(&webp_deccfg));
    const bytes file = lossless_webp(5, 5, pixels(5, 5, 100));
    ASSERT_EQ(examine(file), 0);
    ASSERT_EQ(WebPDecode(webp_image, webp_size, &webp_deccfg), VP8_STATUS_OK);
    webp_deccfg_init = true;
    free_all_webp_raw();
    EXPECT_EQ(webp_image, nullptr);
    EXPECT_TRUE(webp_deccfg_init);
    free_all_webp();
    EXPECT_FALSE(webp_deccfg_init);
    free_all_webp();
    EXPECT_FALSE(webp_deccfg_init);
}

} // namespace
