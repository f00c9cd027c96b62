#include <csignal>

#include "bin/examine/image_state.h"
#include "bin/examine/jpeg.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "bin/vexa_stillimage.h"
#include "tests/unit/run/run_fixture.h"

namespace {

class DecodeDispatch : public RunFixture {
protected:
    void TearDown() override
    {
        png_interlace_method = 0;
        RunFixture::TearDown();
    }
};

TEST_F(DecodeDispatch, UnsupportedPngIsReported)
{
    image_file_type = IMAGE_PNG;
    png_color_type = 1;
    decode_picture();
    EXPECT_EQ(printed(), "I'm not yet familiar with that form of PNG\n");
}

TEST_F(DecodeDispatch, PngInterlaceBeyondAdam7DecodesNothing)
{
    image_file_type = IMAGE_PNG;
    png_color_type = 2;
    png_interlace_method = 2;
    decode_picture();
    EXPECT_EQ(printed(), "Unsupported interlace pattern\n");
}

TEST_F(DecodeDispatch, UnsupportedTiffIsReported)
{
    image_file_type = IMAGE_TIFF;
    tiff_photometric = 4;
    decode_picture();
    EXPECT_EQ(printed(), "I'm not yet familiar with that form of TIFF\n");
}

TEST_F(DecodeDispatch, JpegWithoutAReaderBreaksAnInvariant)
{
    image_file_type = IMAGE_JPEG;
    leave_stderr();
    EXPECT_EXIT(decode_picture(), testing::KilledBySignal(SIGABRT),
                "bin/vexa_stillimage: .*jpeg_decompress != __null");
}

TEST_F(DecodeDispatch, UnidentifiedPictureIsNotDecoded)
{
    decode_picture();
    EXPECT_EQ(printed(), "");
}

} // namespace
