#include "bin/decode/gif_canvas.h"
#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/vexa_stillimage.h"
#include "platform/run_state.h"
#include "tests/support/gif_writer.h"
#include "tests/unit/run/run_fixture.h"

namespace {

class GifDispatch : public RunFixture {
protected:
    void TearDown() override
    {
        free_all_gif();
        reset_gif_canvas();
        RunFixture::TearDown();
    }

    void open_picture()
    {
        const gif_spec spec = {.frames = {{.indices = {1}}}};
        scripted::set_picture(write_gif(spec));
        ASSERT_EQ(examine_gif_file(), 0);
        image_file_type = IMAGE_GIF;
        layout_full_size();
        layout_mipmaps();
        scripted::provide_buffer(image_decoded_size);
        printed();
    }
};

TEST_F(GifDispatch, PictureIsDecodedSilentlyAndStaysOpen)
{
    open_picture();
    decode_picture();
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(*scripted::buffer(), 235);
    EXPECT_NE(gif_image, nullptr);
}

TEST_F(GifDispatch, FailureIsReportedOnceAndThePictureStaysOpen)
{
    open_picture();
    scripted::plan.fail_mapping = 1;
    decode_picture();
    EXPECT_EQ(printed(), "Failed to memory-map Y plane\nWARNING: Failed to decode GIF\n");
    EXPECT_NE(gif_image, nullptr);
}

TEST_F(GifDispatch, SignalIsNoFailure)
{
    open_picture();
    DIE4 = 1;
    decode_picture();
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(*scripted::buffer(), 0);
}

} // namespace
