#include <gtest/gtest.h>
#include <png.h>

#include "client/tool/picture_files.h"
#include "tests/unit/client/served_picture.h"

namespace {

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

TEST(PictureFiles, PpmHasHeaderAndSamplesWithoutAlpha)
{
    const served_picture served({.full_width = 5, .full_height = 3, .alpha = true});
    const std::vector<uint8_t> samples = to_rgb(served.picture, false).samples;
    EXPECT_EQ(ppm_file(served.picture),
              "P6\n5 3\n255\n" + std::string(samples.begin(), samples.end()));
}

} // namespace
