// TIFF pictures from examination to the frame buffer: each photometric value has its decoder, and
// the file is closed in any case.
#include <algorithm>

#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "bin/vexa_stillimage.h"
#include "tests/support/tiff_writer.h"
#include "tests/unit/run/run_fixture.h"

namespace {

class TiffDispatch : public RunFixture {
protected:
    void TearDown() override
    {
        reset_tiff();
        reset_image_state();
        reset_layout();
        RunFixture::TearDown();
    }

    void open(uint32_t photometric, uint32_t samples)
    {
        tiff_spec spec = plain_tiff(8, 8, samples, photometric);
        spec.set_short(530, {1, 1});
        std::fill(spec.strips[0].begin(), spec.strips[0].end(), static_cast<unsigned char>(255));
        scripted::set_picture(write_tiff(spec));
        ASSERT_EQ(examine_tiff_file(), 0);
        image_file_type = IMAGE_TIFF;
        layout_full_size();
        scripted::provide_buffer(image_decoded_size, 0x5A);
        printed();
    }

    // Y, U, V of the first pixel; only Y for a grey picture.
    static std::vector<int> first_pixel()
    {
        const unsigned char* bytes = scripted::buffer();
        if (image_is_monochrome != 0) {
            return {bytes[0]};
        }
        return {bytes[0], bytes[image_offset_U], bytes[image_offset_V]};
    }
};

TEST_F(TiffDispatch, EachPhotometricValueHasItsDecoder)
{
    struct dispatch_case {
        uint32_t photometric, samples;
        std::vector<int> drawn; // the pixel decoded from samples of 255
    };
    const dispatch_case cases[] = {
        {2, 3, {235, 128, 128}}, {0, 1, {235}},          {1, 1, {235}},
        {6, 3, {235, 239, 239}}, {5, 4, {16, 128, 128}}, {3, 1, {16, 128, 128}},
    };
    for (const dispatch_case& c : cases) {
        open(c.photometric, c.samples);
        decode_picture();
        EXPECT_EQ(printed(), "");
        EXPECT_EQ(first_pixel(), c.drawn) << c.photometric;
        EXPECT_EQ(tiff_image, nullptr);
    }
}

TEST_F(TiffDispatch, OtherInkSetsAreNotDecoded)
{
    open(5, 4);
    tiff_inkset = 2;
    decode_picture();
    EXPECT_EQ(printed(), "I'm not yet familiar with that form of TIFF\n");
    EXPECT_EQ(first_pixel(), (std::vector<int>{0x5A, 0x5A, 0x5A}));
    EXPECT_EQ(tiff_image, nullptr);
    EXPECT_TRUE(scripted::log.status.empty());
}

TEST_F(TiffDispatch, OtherPhotometricValuesAreReported)
{
    for (const uint32_t photometric : {4U, 7U, 8U, 32844U}) {
        open(2, 3);
        tiff_photometric = photometric;
        decode_picture();
        EXPECT_EQ(printed(), "I'm not yet familiar with that form of TIFF\n");
        EXPECT_EQ(tiff_image, nullptr);
    }
}

TEST_F(TiffDispatch, DecoderThatCannotStartIsReported)
{
    open(2, 3);
    tiff_photometric = 3;
    decode_picture();
    EXPECT_EQ(printed(), "Unable to retrieve colormap\nWARNING: Failed to decode TIFF\n");
    EXPECT_EQ(tiff_image, nullptr);
}

} // namespace
