#include "tests/unit/decode/gif_fixture.h"

#include "bin/decode/gif.h"
#include "bin/decode/gif_canvas.h"
#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "platform/cnb.h"
#include "tests/support/failing_calls.h"
#include "tests/support/gif_reference.h"
#include "tests/support/scripted_platform.h"

namespace {

void draw_unit(const gif_reference::animation& what,
               const std::vector<gif_reference::colour>& canvas, unsigned char* unit)
{
    for (unsigned y = 0; y < what.height; ++y) {
        for (size_t x = 0; x < image_stride_Y; ++x) {
            const gif_reference::colour c =
                x < what.width ? canvas[size_t{y} * what.width + x] : gif_reference::colour{};
            const int r = c.r;
            const int g = c.g;
            const int b = c.b;
            const size_t at = y * image_stride_Y + x;
            unit[image_offset_Y + at] =
                static_cast<unsigned char>((66 * r + 129 * g + 25 * b + 4096) >> 8);
            unit[image_offset_U + at] =
                static_cast<unsigned char>((-38 * r - 74 * g + 112 * b + 32768) >> 8);
            unit[image_offset_V + at] =
                static_cast<unsigned char>((112 * r - 94 * g - 18 * b + 32768) >> 8);
            unit[image_offset_A + at] = c.a;
        }
    }
}

} // namespace

std::vector<unsigned char> draw_gif_literally(const std::vector<unsigned char>& file, size_t frames)
{
    std::vector<unsigned char> all(image_decoded_size);
    const gif_reference::animation what = gif_reference::read(file);
    const auto shown = gif_reference::compose(what);
    for (size_t i = 0; i < shown.size() && i < frames; ++i) {
        draw_unit(what, shown[i], all.data() + i * image_decoded_unit_size);
    }
    return all;
}

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
    printed = testing::internal::GetCapturedStderr();
    return result;
}

std::vector<unsigned char> gif_test::allocation()
{
    return {scripted::buffer(), scripted::buffer() + scripted::buffer_size()};
}

void gif_test::expect_drawn_by_rules(const file_bytes& file, const std::string& name)
{
    reset_for_gif();
    open(file);
    EXPECT_EQ(decode(), 0) << name;
    EXPECT_EQ(printed, "") << name;
    EXPECT_TRUE(allocation() == draw_gif_literally(file)) << name;
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
