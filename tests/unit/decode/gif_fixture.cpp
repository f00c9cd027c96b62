#include "tests/unit/decode/gif_fixture.h"

#include "bin/decode/gif.h"
#include "bin/decode/gif_canvas.h"
#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "platform/media_item.h"
#include "tests/support/failing_calls.h"
#include "tests/support/gif_reference.h"
#include "tests/support/scripted_platform.h"

void reset_for_gif()
{
    failing_calls::plan = {};
    free_all_gif();
    reset_gif_canvas();
    reset_image_state();
    reset_layout();
    reset_mipmaps();
    scripted::reset();
    cnb_default_buffer_drop();
}

void gif_test::open(const file_bytes& file)
{
    scripted::set_picture(file);
    testing::internal::CaptureStderr();
    ASSERT_EQ(examine_gif_file(), 0);
    layout_full_size();
    layout_mipmaps();
    testing::internal::GetCapturedStderr();
    scripted::provide_buffer(image_decoded_size);
}

int gif_test::decode()
{
    testing::internal::CaptureStderr();
    const int result = full_decode_gif();
    told = testing::internal::GetCapturedStderr();
    return result;
}

std::vector<unsigned char> gif_test::allocation()
{
    return {scripted::buffer(), scripted::buffer() + scripted::buffer_size()};
}

void gif_test::expect_drawn_as_told(const file_bytes& file, const std::string& name)
{
    reset_for_gif();
    open(file);
    EXPECT_EQ(decode(), 0) << name;
    EXPECT_EQ(told, "") << name;
    EXPECT_TRUE(allocation() == gif_reference::draw(file)) << name;
    const gif_reference::animation what = gif_reference::read(file);
    EXPECT_EQ(image_mapping_points, gif_reference::timeline(what)) << name;
    EXPECT_EQ(image_mapping_total, gif_reference::running_time(what)) << name;
}

gif_frame_spec plain_frame(unsigned left, unsigned top, unsigned width, unsigned height,
                           unsigned char index)
{
    gif_frame_spec frame = {.left = left, .top = top, .width = width, .height = height};
    frame.indices.assign(size_t{width} * height, index);
    return frame;
}

shown_pixel pixel_of(size_t frame, unsigned x, unsigned y)
{
    const unsigned char* unit = scripted::buffer() + frame * image_decoded_unit_size;
    const size_t at = y * image_stride_Y + x;
    return {unit[image_offset_Y + at], unit[image_offset_U + at], unit[image_offset_V + at],
            unit[image_offset_A + at]};
}
