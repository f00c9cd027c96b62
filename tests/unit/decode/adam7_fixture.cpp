#include "tests/unit/decode/adam7_fixture.h"

#include <algorithm>

#include "bin/decode/planes.h"
#include "bin/decode/png_adam7.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/framebuffer/records.h"
#include "platform/cnb.h"
#include "platform/run_state.h"

namespace adam7_tests {

void Fixture::start_over()
{
    free_all_png_fileio();
    reset_image_state();
    reset_layout();
    reset_mipmaps();
    scripted::reset();
    cnb_default_buffer_drop();
    failing_calls::plan = {};
}

void Fixture::open(const bytes& file, unsigned char before, bool levels)
{
    scripted::set_picture(file);
    testing::internal::CaptureStderr();
    const int result = examine_png_file();
    if (result == 0) {
        layout_full_size();
        if (levels) {
            layout_mipmaps();
        }
        // Without levels the buffer ends with the planes, so that nothing can be drawn behind them
        // unnoticed.
        scripted::provide_buffer(levels ? image_decoded_size : image_scanline_data_buffer_offset,
                                 before);
        build_picture_records();
    }
    printed = testing::internal::GetCapturedStderr();
    ASSERT_EQ(result, 0) << printed;
    for (int i = 0; i < 4; ++i) {
        plane_offsets_[i] = *frame_planes[i].offset;
    }
}

int Fixture::decode()
{
    testing::internal::CaptureStderr();
    const int result = full_decode_png_rgb_adam7();
    printed = testing::internal::GetCapturedStderr();
    return result;
}

void Fixture::compare(const adam7_literal& literal, const std::string& when)
{
    for (size_t i = 0; i < 4; ++i) {
        const bytes& expected = literal.planes()[i];
        const unsigned char* drawn = scripted::buffer() + plane_offsets_[i];
        ASSERT_TRUE(expected == bytes(drawn, drawn + expected.size()))
            << "plane " << i << ", " << image_width << " x " << image_height << " of type "
            << png_color_type << ", " << png_bit_depth << " bits, " << when;
    }
}

void Fixture::expect_drawn_by_rules(const bytes& file, unsigned char before,
                                    const row_action& before_row)
{
    start_over();
    open(file, before);
    adam7_literal literal(read_png_samples(file), before);
    uint64_t row = 0;
    scripted::plan.on_idle = [&] {
        if (row == scripted::log.status.size()) {
            return; // served during the alpha test
        }
        row = scripted::log.status.size();
        compare(literal, "before row " + std::to_string(row - 1));
        const uint64_t percent = literal.rows_drawn() * 100 / literal.rows_in_all();
        EXPECT_EQ(scripted::log.status.back(),
                  (scripted::status_line{static_cast<int>(percent), "Decoding PNG"}));
        const int pass = literal.pass();
        if (before_row) {
            before_row(row - 1, literal);
        }
        if (literal.pass() == pass) {
            literal.draw_row();
        }
        if (DIE4 != 0) {
            literal.stop();
        }
    };
    EXPECT_EQ(decode(), 0);
    scripted::plan.on_idle = nullptr;
    compare(literal, "at the end");
    EXPECT_EQ(literal.pass(), 7);
    EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""}));
    EXPECT_EQ(printed.find("Unexpected PNG error while reading, aborting decode\n") !=
                  std::string::npos,
              literal.gave_up());
    free_all_png_fileio();
}

bytes Fixture::plane(int index)
{
    const uint64_t rows = *frame_planes[index].stride * static_cast<uint64_t>(image_buffer_height);
    const unsigned char* first = scripted::buffer() + *frame_planes[index].offset;
    return {first, first + rows};
}

size_t Fixture::count_calls(const std::string& name)
{
    return static_cast<size_t>(std::ranges::count(scripted::log.calls, name));
}

} // namespace adam7_tests
