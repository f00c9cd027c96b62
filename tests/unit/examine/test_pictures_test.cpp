// What examination reports for every picture of tests/data that is not a JPEG.
#include <string>
#include <vector>

#include "bin/examine/examine_file.h"
#include "bin/examine/image_state.h"
#include "tests/support/file_contents.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

struct accepted_picture {
    const char* file;
    int width;
    int height;
    uint64_t running_time;
};

const accepted_picture accepted_pictures[] = {
    {"gif/animated-local-palettes.gif", 64, 48, 100},
    {"gif/animated-restore-previous.gif", 100, 100, 400},
    {"gif/animated-varying-delays.gif", 100, 100, 310},
    {"gif/delay-0.gif", 4, 4, 20},
    {"gif/disposal-1.gif", 8, 8, 100},
    {"gif/disposal-2-transparent.gif", 38, 32, 440},
    {"gif/disposal-2.gif", 8, 8, 100},
    {"gif/disposal-3.gif", 8, 8, 100},
    {"gif/frames-beyond-the-screen.gif", 2, 2, 40},
    {"gif/interlaced-cut.gif", 36, 28, 10},
    {"gif/interlaced.gif", 8, 8, 10},
    {"gif/mixed-disposal.gif", 32, 32, 500},
    {"gif/mixed-palettes.gif", 4, 4, 150},
    {"gif/no-trailer.gif", 4, 4, 10},
    {"gif/restore-background.gif", 4, 1, 30},
    {"gif/still-8x8.gif", 8, 8, 10},
    {"gif/still.gif", 36, 28, 10},
    {"gif/transparent-colour-carried-over.gif", 24, 16, 80},
    {"gif/transparent-frame.gif", 8, 8, 100},
    {"gif/varying-delays.gif", 4, 4, 360},
    {"gif/version-87a.gif", 4, 4, 10},
    {"png/basi0g01.png", 32, 32, 1},
    {"png/basi0g04.png", 32, 32, 1},
    {"png/basi0g08.png", 32, 32, 1},
    {"png/basi2c08.png", 32, 32, 1},
    {"png/basi2c16.png", 32, 32, 1},
    {"png/basi3p04.png", 32, 32, 1},
    {"png/basi3p08.png", 32, 32, 1},
    {"png/basi4a08.png", 32, 32, 1},
    {"png/basi6a16.png", 32, 32, 1},
    {"png/basn0g01.png", 32, 32, 1},
    {"png/basn0g02.png", 32, 32, 1},
    {"png/basn0g04.png", 32, 32, 1},
    {"png/basn0g08.png", 32, 32, 1},
    {"png/basn0g16.png", 32, 32, 1},
    {"png/basn2c08.png", 32, 32, 1},
    {"png/basn2c16.png", 32, 32, 1},
    {"png/basn3p01.png", 32, 32, 1},
    {"png/basn3p02.png", 32, 32, 1},
    {"png/basn3p04.png", 32, 32, 1},
    {"png/basn3p08.png", 32, 32, 1},
    {"png/basn4a08.png", 32, 32, 1},
    {"png/basn4a16.png", 32, 32, 1},
    {"png/basn6a08.png", 32, 32, 1},
    {"png/basn6a16.png", 32, 32, 1},
    {"png/palette-index-past-the-palette.png", 10, 10, 1},
    {"png/rgb-adam7-cut.png", 36, 28, 1},
    {"png/rgb-cut.png", 640, 480, 1},
    {"png/rgba-alpha-253.png", 71, 53, 1},
    {"png/rgba-alpha-254.png", 71, 53, 1},
    {"png/s01i3p01.png", 1, 1, 1},
    {"png/s05i3p02.png", 5, 5, 1},
    {"png/tbbn3p08.png", 32, 32, 1},
    {"png/wide-16384.png", 16384, 1, 1},
    {"png/xcsn0g01.png", 32, 32, 1},
    {"tiff/cmyk-alpha.tif", 71, 53, 1},
    {"tiff/cmyk-jpeg.tif", 150, 63, 1},
    {"tiff/cmyk.tif", 73, 43, 1},
    {"tiff/fax-fill-order-2.tif", 6, 4, 1},
    {"tiff/fax-group-3.tiff", 153, 55, 1},
    {"tiff/fax-group-4.tiff", 153, 55, 1},
    {"tiff/grey-2-strips.tiff", 150, 103, 1},
    {"tiff/grey-4-bits.tif", 73, 43, 1},
    {"tiff/grey-alpha-separate-planes.tiff", 64, 64, 1},
    {"tiff/grey-deflate.tiff", 160, 120, 1},
    {"tiff/grey-tall-strip.tif", 33, 100, 1},
    {"tiff/one-bit-packbits.tiff", 153, 55, 1},
    {"tiff/one-bit.tiff", 153, 55, 1},
    {"tiff/palette-4-bits.tif", 73, 43, 1},
    {"tiff/palette-8-bits.tif", 73, 43, 1},
    {"tiff/palette-deflate.tiff", 150, 103, 1},
    {"tiff/rgb-16-bits.tiff", 150, 103, 1},
    {"tiff/rgb-big-endian.tiff", 150, 103, 1},
    {"tiff/rgb-lzw.tiff", 150, 100, 1},
    {"tiff/rgb-separate-planes.tif", 73, 43, 1},
    {"tiff/rgba-lzw-predictor.tiff", 400, 300, 1},
    {"tiff/ycbcr-420.tif", 36, 27, 1},
    {"tiff/ycbcr-444.tif", 71, 53, 1},
    {"tiff/ycbcr-jpeg-damaged.tif", 300, 225, 1},
    {"tiff/ycbcr-no-subsampling-tag.tif", 20, 1536, 1},
    {"tiff/ycbcr-old-jpeg.tif", 160, 160, 1},
    {"webp/animation.webp", 200, 200, 1},
    {"webp/lossless-alpha.webp", 386, 395, 1},
    {"webp/lossless-bricks.webp", 160, 120, 1},
    {"webp/lossless-cut.webp", 71, 53, 1},
    {"webp/lossless-two-colours.webp", 75, 100, 1},
    {"webp/lossy-128x128.webp", 128, 128, 1},
    {"webp/lossy-176x144.webp", 176, 144, 1},
    {"webp/lossy-alpha-128x128.webp", 128, 128, 1},
    {"webp/lossy-alpha-odd-height.webp", 400, 301, 1},
    {"webp/lossy-alpha.webp", 100, 100, 1},
    {"webp/lossy-bricks.webp", 160, 120, 1},
    {"webp/lossy-cut.webp", 71, 53, 1},
    {"webp/size-13x1.webp", 13, 1, 1},
    {"webp/size-1x1.webp", 1, 1, 1},
};

struct refused_picture {
    const char* file;
    std::vector<std::string> lines; // in this order, possibly with others between them
};

const refused_picture refused_pictures[] = {
    {"gif/empty-screen.gif",
     {"GIF reading error (?)", "Invalid GIF state", "GIF examination failed"}},
    {"gif/no-frames.gif", {"GIF reading error (?)", "Invalid GIF state", "GIF examination failed"}},
    {"png/interlace-method-2.png",
     {"PNG ERROR: Invalid IHDR data", "Unexpected PNG error, giving up", "PNG examination failed"}},
    {"png/wide-16385.png",
     {"PNG ERROR: Invalid IHDR data", "Unexpected PNG error, giving up", "PNG examination failed"}},
    {"png/xc9n2c08.png",
     {"PNG ERROR: Invalid IHDR data", "Unexpected PNG error, giving up", "PNG examination failed"}},
    {"png/xhdn0g08.png",
     {"PNG ERROR: IHDR: CRC error", "Unexpected PNG error, giving up", "PNG examination failed"}},
    {"png/xs1n0g01.png", {"FIXME: Unknown file type id"}},
    {"png/zero-width.png",
     {"PNG ERROR: Invalid IHDR data", "Unexpected PNG error, giving up", "PNG examination failed"}},
    {"tiff/big-tiff.tif", {"FIXME: Unknown file type id"}},
    {"tiff/cmyk-ink-set-2.tif", {"Unknown TIFF color format", "TIFF examination failed"}},
    {"tiff/cmyk-no-ink-set.tif", {"Unknown TIFF color format", "TIFF examination failed"}},
    {"tiff/logluv.tiff", {"Unknown TIFF color format", "TIFF examination failed"}},
    {"tiff/seven-samples.tif", {"Too many channels", "TIFF examination failed"}},
    {"tiff/tiled.tiff", {"TIFF strip height not available", "TIFF examination failed"}},
    {"tiff/zero-width.tiff", {"TIFF did not open file", "TIFF examination failed"}},
    {"webp/riff-avi.webp", {"FIXME: Unknown file type id"}},
};

class TestPictures : public ExamineFixture {};

TEST_F(TestPictures, AreExaminedWithTheirSizesAndDurations)
{
    for (const accepted_picture& picture : accepted_pictures) {
        SCOPED_TRACE(picture.file);
        start_over();
        scripted::set_picture(read_test_file(picture.file));
        EXPECT_EQ(examine_file(), 0);
        EXPECT_EQ(image_width, picture.width);
        EXPECT_EQ(image_height, picture.height);
        EXPECT_EQ(image_mapping_total, picture.running_time);
    }
}

TEST_F(TestPictures, AreRefusedWithTheirMessages)
{
    for (const refused_picture& picture : refused_pictures) {
        SCOPED_TRACE(picture.file);
        start_over();
        scripted::set_picture(read_test_file(picture.file));
        printed();
        EXPECT_EQ(examine_file(), 1);
        const std::string text = printed();
        size_t position = 0;
        for (const std::string& line : picture.lines) {
            position = text.find(line + "\n", position);
            ASSERT_NE(position, std::string::npos) << line << " in\n" << text;
            position += line.size();
        }
        EXPECT_EQ(position + 1, text.size()) << text;
    }
}

} // namespace
