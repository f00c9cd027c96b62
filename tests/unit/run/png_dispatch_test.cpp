// PNG pictures from examination to the frame buffer: each colour type and interlacing has its
// decoder, and the file is closed in any case.
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/framebuffer/layout.h"
#include "bin/vexa_stillimage.h"
#include "tests/support/png_writer.h"
#include "tests/unit/run/run_fixture.h"

namespace {

class PngDispatch : public RunFixture {
protected:
    void TearDown() override
    {
        free_all_png_fileio();
        reset_image_state();
        reset_layout();
        RunFixture::TearDown();
    }

    // A picture of one pixel whose samples are all 255: white, or the palette's last colour, which
    // is black.
    void open(uint8_t colour_type, uint8_t interlace = 0)
    {
        png_spec spec = {.colour_type = colour_type, .interlace = interlace};
        if (colour_type == 3) {
            spec.chunks = {{"PLTE", std::vector<unsigned char>(768)}};
        }
        spec.rows = {0, 255, 255, 255, 255};
        spec.rows.resize(1 + channels(colour_type));
        scripted::set_picture(write_png(spec));
        ASSERT_EQ(examine_png_file(), 0);
        image_file_type = IMAGE_PNG;
        layout_full_size();
        scripted::provide_buffer(image_decoded_size, 0x5A);
        printed();
    }

    static size_t channels(uint8_t colour_type)
    {
        return (colour_type == 2 || colour_type == 6 ? 3U : 1U) + (colour_type >= 4 ? 1U : 0U);
    }

    // The first pixel's sample in each plane of the picture.
    static std::vector<int> first_pixel()
    {
        const unsigned char* bytes = scripted::buffer();
        std::vector<int> samples = {bytes[image_offset_Y]};
        if (image_is_monochrome == 0) {
            samples.push_back(bytes[image_offset_U]);
            samples.push_back(bytes[image_offset_V]);
        }
        if (image_stride_A != 0) {
            samples.push_back(bytes[image_offset_A]);
        }
        return samples;
    }
};

TEST_F(PngDispatch, EachColourTypeHasItsDecoder)
{
    struct dispatch_case {
        uint8_t colour_type;
        std::vector<int> drawn;
    };
    const dispatch_case cases[] = {{0, {235}},
                                   {2, {235, 128, 128}},
                                   {3, {16, 128, 128}},
                                   {4, {235, 255}},
                                   {6, {235, 128, 128, 255}}};
    for (const dispatch_case& c : cases) {
        open(c.colour_type);
        decode_picture();
        EXPECT_EQ(printed(), "");
        EXPECT_EQ(first_pixel(), c.drawn) << int{c.colour_type};
        EXPECT_EQ(png_context, nullptr);
        EXPECT_EQ(png_fp, nullptr);
    }
}

TEST_F(PngDispatch, InterlacedPicturesHaveTheirOwnDecoder)
{
    for (const uint8_t colour_type : std::vector<uint8_t>{0, 2, 3, 4, 6}) {
        open(colour_type, 1);
        scripted::log.ready.clear();
        decode_picture();
        EXPECT_EQ(first_pixel()[0], colour_type == 3 ? 16 : 235) << int{colour_type};
        EXPECT_EQ(scripted::log.ready.size(), 1U); // for the provisional picture
        EXPECT_EQ(png_context, nullptr);
    }
}

TEST_F(PngDispatch, OtherInterlaceMethodsAreNotDecoded)
{
    open(2);
    png_interlace_method = 2;
    decode_picture();
    EXPECT_EQ(printed(), "Unsupported interlace pattern\n");
    EXPECT_EQ(first_pixel(), (std::vector<int>{0x5A, 0x5A, 0x5A}));
    EXPECT_EQ(png_context, nullptr);
    EXPECT_TRUE(scripted::log.status.empty());
}

TEST_F(PngDispatch, OtherColourTypesAreReported)
{
    open(2);
    png_color_type = 1;
    decode_picture();
    EXPECT_EQ(printed(), "I'm not yet familiar with that form of PNG\n");
    EXPECT_EQ(first_pixel(), (std::vector<int>{0x5A, 0x5A, 0x5A}));
    EXPECT_EQ(png_context, nullptr);
}

TEST_F(PngDispatch, DecoderThatCannotStartIsReported)
{
    open(2);
    png_color_type = 3; // without a palette
    decode_picture();
    EXPECT_EQ(printed(), "PNG library failed to return color palette\n"
                         "WARNING: Failed to decode PNG\n");
    EXPECT_EQ(png_context, nullptr);
}

} // namespace
