// Which JPEG pictures are supported: colour space, size, subsampling.
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/examine/image_state.h"
#include "bin/examine/jpeg.h"
#include "bin/examine/jpeg_reader.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_writer.h"
#include "tests/unit/examine/jpeg_examination.h"

using namespace jpeg_writer;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

using JpegHeader = jpeg_examination;

// --- colour spaces ------------------------------------------------------------------------------

TEST_F(JpegHeader, RgbIsRefusedAfterTheHeaderLine)
{
    picture rgb = ycbcr(16, 16, {1, 1});
    rgb.colour_space = JCS_RGB;
    EXPECT_EQ(examine(write(rgb)), -1);
    EXPECT_EQ(printed, "JPEG: 16 x 16 image with 3 components, colorspace #2: RGB  "
                       "lib default out #2: RGB\n"
                       "JPEGLIB: ERROR: Unsupported colorspace\n");
    expect_closed();
}

TEST_F(JpegHeader, TwoComponentsAreOfUnknownColourSpace)
{
    picture two = grey(16, 16);
    two.colour_space = JCS_UNKNOWN;
    two.sampling = {{1, 1}, {1, 1}};
    EXPECT_EQ(examine(write(two)), -1);
    EXPECT_EQ(printed, "JPEG: 16 x 16 image with 2 components, colorspace #0: Unknown  "
                       "lib default out #0: Unknown\n"
                       "JPEGLIB: ERROR: Unsupported colorspace\n");
}

TEST_F(JpegHeader, UnnamedColourSpaceIsThreeQuestionMarks)
{
    file_bytes file = ycbcr_file(16, 16, {1, 1});
    set_component_id(file, 1, 0x22);
    set_component_id(file, 2, 0x23);
    EXPECT_EQ(examine(file), -1);
    EXPECT_EQ(printed, "JPEG: 16 x 16 image with 3 components, colorspace #7: ???  "
                       "lib default out #2: RGB\n"
                       "JPEGLIB: ERROR: Unsupported colorspace\n");
}

// Four components numbered 1 to 4, the form in which many programs write CMYK.
file_bytes four_numbered_components(const file_bytes& marker)
{
    picture what = four(JCS_YCCK, 16, 16, {1, 1});
    what.adobe_marker = false;
    file_bytes file = write(what);
    insert(file, 2, marker);
    return file;
}

TEST_F(JpegHeader, FourComponentsWithoutAdobeMarkerAreCmyk)
{
    ASSERT_EQ(examine(four_numbered_components({})), 0);
    EXPECT_THAT(printed, HasSubstr("colorspace #4: CMYK  lib default out #4: CMYK\n"));
    EXPECT_THAT(printed, HasSubstr("CYMK"));
    EXPECT_EQ(jpeg_decompress->jpeg_color_space, JCS_CMYK);
}

TEST_F(JpegHeader, FourComponentsWithAdobeTransformZeroAreCmyk)
{
    ASSERT_EQ(examine(four_numbered_components(adobe_segment(0))), 0);
    EXPECT_EQ(jpeg_decompress->jpeg_color_space, JCS_CMYK);
}

TEST_F(JpegHeader, FourComponentsWithAnyOtherAdobeTransformAreYcck)
{
    for (const unsigned char transform : file_bytes{1, 2, 3, 255}) {
        reset_jpeg_reader();
        ASSERT_EQ(examine(four_numbered_components(adobe_segment(transform))), 0);
        EXPECT_EQ(jpeg_decompress->jpeg_color_space, JCS_YCCK);
        EXPECT_THAT(printed, HasSubstr("colorspace #5: YCbCrK"));
    }
}

TEST_F(JpegHeader, CmykComponentLettersDoNotOverrideAnAdobeTransform)
{
    picture what = four(JCS_CMYK, 16, 16, {1, 1});
    what.adobe_marker = false;
    file_bytes file = write(what);
    insert(file, 2, adobe_segment(2));
    ASSERT_EQ(examine(file), 0);
    EXPECT_EQ(jpeg_decompress->jpeg_color_space, JCS_YCCK);
}

TEST_F(JpegHeader, AdobeMarkerDoesNotChangeThreeComponents)
{
    file_bytes file = ycbcr_file(16, 16, {1, 1});
    insert(file, 2, adobe_segment(0));
    ASSERT_EQ(examine(file), 0);
    EXPECT_EQ(jpeg_decompress->jpeg_color_space, JCS_YCbCr);
}

// --- size ---------------------------------------------------------------------------------------

TEST_F(JpegHeader, LargestSizeIsAccepted)
{
    file_bytes file = ycbcr_file(16, 16, {1, 1});
    set_size(file, 16384, 16384);
    EXPECT_EQ(examine(file), 0);
    EXPECT_EQ(image_width, 16384);
    EXPECT_EQ(image_height, 16384);
    EXPECT_EQ(image_buffer_height, 16384);
}

TEST_F(JpegHeader, OneMoreInEitherDirectionIsRefusedAfterTheHeaderLine)
{
    for (const auto& [width, height] : {std::pair{16385, 1}, std::pair{1, 16385}}) {
        file_bytes file = ycbcr_file(16, 16, {1, 1});
        set_size(file, width, height);
        EXPECT_EQ(examine(file), -1);
        EXPECT_EQ(printed, "JPEG: " + std::to_string(width) + " x " + std::to_string(height) +
                               " image with 3 components, colorspace #3: YCbCr  "
                               "lib default out #2: RGB\n"
                               "JPEG image is WAY TOO LARGE\n");
        expect_closed();
    }
    EXPECT_EQ(image_width, -1);
}

TEST_F(JpegHeader, BufferHeightIsRoundedUpTo32)
{
    const std::vector<std::pair<int, int>> heights = {{1, 32}, {31, 32}, {32, 32}, {33, 64}};
    for (const auto& [height, rounded] : heights) {
        reset_jpeg_reader();
        image_has_alpha_channel = 1;
        ASSERT_EQ(examine(write(grey(5, height))), 0);
        EXPECT_EQ(image_width, 5);
        EXPECT_EQ(image_height, height);
        EXPECT_EQ(image_buffer_height, rounded);
        EXPECT_EQ(image_has_alpha_channel, 0);
    }
}

// --- subsampling --------------------------------------------------------------------------------

// A header as the library parses it, for factors that its compressor refuses to write.
struct made_header {
    std::vector<jpeg_component_info> components;
    jpeg_decompress_struct cinfo = {};

    made_header(J_COLOR_SPACE space, std::initializer_list<factors> all)
    {
        for (const factors& f : all) {
            jpeg_component_info info = {};
            info.h_samp_factor = f.h;
            info.v_samp_factor = f.v;
            components.push_back(info);
        }
        cinfo.jpeg_color_space = space;
        cinfo.num_components = static_cast<int>(components.size());
        cinfo.comp_info = components.data();
    }
};

TEST_F(JpegHeader, FourLumaFactorsAreSupported)
{
    const std::vector<std::tuple<factors, int, int, std::string>> supported = {
        {{1, 1}, 0, 0, "JPEG chroma subsample 1x1\n"},
        {{2, 1}, 1, 0, "JPEG chroma subsample 2x1\n"},
        {{1, 2}, 0, 1, "JPEG chroma subsample 1x2\n"},
        {{2, 2}, 1, 1, "JPEG chroma subsample 2x2\n"},
    };
    for (const auto& [luma, x_shift, y_shift, line] : supported) {
        reset_jpeg_reader();
        EXPECT_EQ(examine(ycbcr_file(32, 32, luma)), 0);
        EXPECT_EQ(image_chroma_x_shift, x_shift);
        EXPECT_EQ(image_chroma_y_shift, y_shift);
        EXPECT_THAT(printed, EndsWith(line));
    }
}

TEST_F(JpegHeader, OtherLumaFactorsAreRefused)
{
    for (int h = 1; h <= 4; ++h) {
        for (int v = 1; v <= 4; ++v) {
            const made_header header(JCS_YCbCr, {{h, v}, {1, 1}, {1, 1}});
            const bool supported = h <= 2 && v <= 2;
            const std::string line = printed_by([&header, supported] {
                EXPECT_EQ(find_jpeg_chroma_shifts(header.cinfo), supported ? 0 : -1);
            });
            if (!supported) {
                EXPECT_EQ(line, "Unsupported chroma subsampling scheme\n");
            }
        }
    }
}

TEST_F(JpegHeader, ChromaFactorsOtherThanOneAreRefused)
{
    const made_header headers[] = {
        {JCS_YCbCr, {{2, 2}, {2, 2}, {2, 2}}},        {JCS_YCbCr, {{2, 2}, {2, 1}, {1, 1}}},
        {JCS_YCbCr, {{2, 2}, {1, 1}, {1, 2}}},        {JCS_YCbCr, {{1, 1}, {1, 1}, {2, 1}}},
        {JCS_YCCK, {{2, 2}, {2, 2}, {2, 2}, {2, 2}}},
    };
    for (const made_header& header : headers) {
        EXPECT_EQ(printed_by([&header] { EXPECT_EQ(find_jpeg_chroma_shifts(header.cinfo), -1); }),
                  "Unsupported chroma subsampling scheme\n");
    }
}

TEST_F(JpegHeader, FullChromaWithLargeFactorsIsRefusedFromTheFile)
{
    picture what = ycbcr(71, 53, {2, 2});
    what.sampling = {{2, 2}, {2, 2}, {2, 2}};
    what.separate_scans = true;
    expect_refusal(write(what), "Unsupported chroma subsampling scheme\n");
    EXPECT_EQ(image_width, -1);
}

TEST_F(JpegHeader, SubsampledKIsRefusedAfterTheShiftsAreSet)
{
    picture what = four(JCS_YCCK, 32, 32, {2, 2});
    what.sampling[3] = {1, 1};
    expect_refusal(write(what), "Unsupported chroma subsampling on K channel\n");
    EXPECT_EQ(image_chroma_x_shift, 1);
    EXPECT_EQ(image_chroma_y_shift, 1);
}

TEST_F(JpegHeader, KThatDiffersInOneDirectionIsRefused)
{
    for (const factors k : {factors{2, 1}, factors{1, 2}}) {
        const made_header header(JCS_YCCK, {{2, 2}, {1, 1}, {1, 1}, k});
        EXPECT_EQ(printed_by([&header] { EXPECT_EQ(find_jpeg_chroma_shifts(header.cinfo), -1); }),
                  "Unsupported chroma subsampling on K channel\n");
    }
}

TEST_F(JpegHeader, TooFewComponentsAreWeird)
{
    const made_header two(JCS_YCbCr, {{1, 1}, {1, 1}});
    EXPECT_EQ(printed_by([&two] { EXPECT_EQ(find_jpeg_chroma_shifts(two.cinfo), -1); }),
              "Weird YCbCr colorspace with less than 3 components, ignoring JPEG\n");
    const made_header three(JCS_YCCK, {{1, 1}, {1, 1}, {1, 1}});
    EXPECT_EQ(printed_by([&three] { EXPECT_EQ(find_jpeg_chroma_shifts(three.cinfo), -1); }),
              "Weird YCCK colorspace with less than 4 components, ignoring JPEG\n");
}

} // namespace
