#include "tests/unit/framebuffer/picture.h"

#include "bin/examine/image_state.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/framebuffer/records.h"
#include "tests/support/scripted_platform.h"

void describe(const shape& picture)
{
    image_width = picture.width;
    image_height = picture.height;
    image_buffer_height =
        (picture.height + picture.row_multiple - 1) / picture.row_multiple * picture.row_multiple;
    image_chroma_x_shift = picture.x_shift;
    image_chroma_y_shift = picture.y_shift;
    image_is_monochrome = picture.monochrome ? 1 : 0;
    image_has_alpha_channel = picture.alpha ? 1 : 0;
    image_decoded_frames = picture.frames;
}

void framebuffer_test::SetUp()
{
    scripted::reset();
    reset_image_state();
    reset_layout();
    reset_mipmaps();
}

void framebuffer_test::TearDown()
{
    SetUp();
}

std::string framebuffer_test::lay_out(const shape& picture)
{
    describe(picture);
    return printed([] {
        layout_full_size();
        layout_mipmaps();
    });
}

void framebuffer_test::allocate(const shape& picture, unsigned char fill)
{
    lay_out(picture);
    scripted::provide_buffer(image_decoded_size, fill);
    printed([] { ASSERT_EQ(build_picture_records(), 0); });
}

void framebuffer_test::fill_planes(uint32_t seed)
{
    std::mt19937 random(seed);
    for (uint64_t frame = 0; frame < image_decoded_frames; ++frame) {
        unsigned char* unit = scripted::buffer() + frame * image_decoded_unit_size;
        for (uint64_t i = 0; i < image_scanline_data_buffer_offset; ++i) {
            unit[i] = static_cast<unsigned char>(random() >> 24);
        }
    }
}

std::vector<unsigned char> buffer_bytes()
{
    return {scripted::buffer(), scripted::buffer() + scripted::buffer_size()};
}

unsigned char& byte_at(uint64_t offset)
{
    return scripted::buffer()[offset];
}
