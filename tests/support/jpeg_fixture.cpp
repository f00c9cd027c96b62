#include "tests/support/jpeg_fixture.h"

#include "bin/examine/image_state.h"
#include "bin/examine/jpeg.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"
#include "tests/support/scripted_platform.h"

std::string printed_by(const std::function<void()>& work)
{
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

void reset_for_jpeg()
{
    reset_jpeg_reader();
    reset_image_state();
    reset_layout();
    scripted::reset();
    cnb_default_buffer_drop();
}

int jpeg_test::examine(const jpeg_writer::file_bytes& file)
{
    scripted::set_picture(file);
    int result = 0;
    printed = printed_by([&result] { result = examine_jpeg_file(); });
    return result;
}

void jpeg_test::open(const jpeg_writer::file_bytes& file, unsigned char before)
{
    ASSERT_EQ(examine(file), 0) << printed;
    printed_by(layout_full_size);
    scripted::provide_buffer(image_decoded_size, before);
}

int jpeg_test::decode(int (*decoder)())
{
    int result = 0;
    printed = printed_by([&result, decoder] { result = decoder(); });
    return result;
}

std::vector<unsigned char> jpeg_test::allocation() const
{
    return {scripted::buffer(), scripted::buffer() + scripted::buffer_size()};
}
