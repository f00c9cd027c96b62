#include <gtest/gtest.h>
#include <png.h>

#include "client/scanline_record.h"
#include "client/tool/picture_files.h"
#include "client/tool/rgb.h"
#include "tests/unit/client/frame_sample.h"

namespace {

// A sample and the picture in it.
struct served_picture {
    explicit served_picture(const sample_shape& shape) : sample(shape)
    {
        std::string reason;
        EXPECT_TRUE(describe_picture(sample.record(), sample.message.scanline_size, sample.message,
                                     sample.area.data(), &picture, &reason))
            << reason;
    }
    uint8_t at(size_t plane, uint32_t x, uint32_t y) const
    {
        return sample.area[sample.offsets[plane] + y * sample.strides[plane] + x];
    }

    frame_sample sample;
    stillimage_picture picture = {};
};

// The plane at these sizes, each sample taken from where the shifts lead.
std::string plane(const served_picture& served, size_t p, uint32_t width, uint32_t height,
                  unsigned x_shift = 0, unsigned y_shift = 0)
{
    std::string bytes;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            bytes += static_cast<char>(served.at(p, x >> x_shift, y >> y_shift));
        }
    }
    return bytes;
}

std::string y4m_header(const std::string& tag, const std::string& pixel_aspect)
{
    return "YUV4MPEG2 W5 H3 F25:1 Ip A" + pixel_aspect + " " + tag +
           " XCOLORRANGE=LIMITED\nFRAME\n";
}

constexpr const char* pixel_16_9 = "16:15"; // (16 * 3) / (9 * 5)

TEST(PictureFiles, PngReadsBackAtEverySize)
{
    for (uint32_t size = 1; size < 12; ++size) {
        const bool alpha = size % 2 != 0;
        const served_picture served({.full_width = size, .full_height = 13 - size, .alpha = alpha});
        const std::string file = png_file(served.picture);
        png_image image = {};
        image.version = PNG_IMAGE_VERSION;
        ASSERT_NE(png_image_begin_read_from_memory(&image, file.data(), file.size()), 0);
        EXPECT_EQ(image.width, size);
        EXPECT_EQ(image.height, 13 - size);
        ASSERT_EQ(image.format, alpha ? PNG_FORMAT_RGBA : PNG_FORMAT_RGB);
        std::vector<uint8_t> samples(PNG_IMAGE_SIZE(image));
        ASSERT_NE(png_image_finish_read(&image, nullptr, samples.data(), 0, nullptr), 0);
        EXPECT_EQ(samples, to_rgb(served.picture, true).samples);
    }
}

TEST(PictureFiles, PpmIsHeaderAndSamplesWithoutAlpha)
{
    const served_picture served({.full_width = 5, .full_height = 3, .alpha = true});
    const std::vector<uint8_t> samples = to_rgb(served.picture, false).samples;
    EXPECT_EQ(ppm_file(served.picture),
              "P6\n5 3\n255\n" + std::string(samples.begin(), samples.end()));
}

TEST(PictureFiles, Y4mKeepsTheSubsamplingsItKnows)
{
    const struct {
        unsigned x_shift, y_shift;
        const char* tag;
        uint32_t width, height;
    } kinds[] = {{0, 0, "C444", 5, 3}, {1, 0, "C422", 3, 3}, {1, 1, "C420jpeg", 3, 2}};
    for (const auto& kind : kinds) {
        const served_picture served(
            {.full_width = 5, .full_height = 3, .x_shift = kind.x_shift, .y_shift = kind.y_shift});
        EXPECT_EQ(y4m_file(served.picture), y4m_header(kind.tag, pixel_16_9) +
                                                plane(served, 0, 5, 3) +
                                                plane(served, 1, kind.width, kind.height) +
                                                plane(served, 2, kind.width, kind.height));
    }
}

TEST(PictureFiles, Y4mRepeatsChromaOfOtherSubsamplings)
{
    for (const auto& [x, y] : {std::pair{0U, 1U}, {2U, 0U}, {2U, 2U}, {1U, 2U}}) {
        const served_picture served(
            {.full_width = 5, .full_height = 3, .x_shift = x, .y_shift = y});
        EXPECT_EQ(y4m_file(served.picture),
                  y4m_header("C444", pixel_16_9) + plane(served, 0, 5, 3) +
                      plane(served, 1, 5, 3, x, y) + plane(served, 2, 5, 3, x, y));
    }
}

TEST(PictureFiles, Y4mWithAlphaIs444)
{
    const served_picture served({.full_width = 5, .full_height = 3, .alpha = true});
    EXPECT_EQ(y4m_file(served.picture), y4m_header("C444alpha", pixel_16_9) +
                                            plane(served, 0, 5, 3) + plane(served, 1, 5, 3, 1, 1) +
                                            plane(served, 2, 5, 3, 1, 1) + plane(served, 3, 5, 3));
}

TEST(PictureFiles, Y4mOfMonochromeHasOnePlaneOrGrayChroma)
{
    const served_picture plain({.full_width = 5, .full_height = 3, .chroma = false});
    EXPECT_EQ(y4m_file(plain.picture), y4m_header("Cmono", pixel_16_9) + plane(plain, 0, 5, 3));
    const served_picture alpha({.full_width = 5, .full_height = 3, .chroma = false, .alpha = true});
    EXPECT_EQ(y4m_file(alpha.picture), y4m_header("C444alpha", pixel_16_9) + plane(alpha, 0, 5, 3) +
                                           std::string(30, '\x80') + plane(alpha, 3, 5, 3));
}

TEST(PictureFiles, Y4mTellsThePixelAspectRatio)
{
    served_picture served({.full_width = 5, .full_height = 3, .chroma = false});
    const auto header_with = [&](int64_t numerator, int64_t denominator) {
        served.picture.aspect_numerator = numerator;
        served.picture.aspect_denominator = denominator;
        return y4m_file(served.picture).substr(0, y4m_header("Cmono", "1:1").size());
    };
    EXPECT_EQ(header_with(5, 3), y4m_header("Cmono", "1:1"));
    EXPECT_EQ(header_with(INT64_MAX, 1), y4m_header("Cmono", "1:1"));
    EXPECT_EQ(header_with(1, INT64_MAX), y4m_header("Cmono", "1:1"));
    EXPECT_EQ(header_with(1, 1), y4m_header("Cmono", "3:5"));
}

} // namespace
