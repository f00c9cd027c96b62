#include "tests/unit/decode/tiff_fixture.h"

#include <sstream>
#include <tuple>
#include <utility>

#include "bin/decode/tiff.h"
#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"

namespace {

int decode_ycbcr()
{
    full_decode_tiff_ycbcr();
    return 0;
}

int decode_by_photometric()
{
    switch (tiff_photometric) {
    case 2:
        return full_decode_tiff_rgb();
    case 3:
        return full_decode_tiff_palette();
    case 5:
        return full_decode_tiff_cmyk();
    case 6:
        return decode_ycbcr();
    default:
        return full_decode_tiff_grayscale();
    }
}

std::vector<int> progress()
{
    std::vector<int> percentages;
    for (const auto& line : scripted::log.status) {
        percentages.push_back(line.percent);
        EXPECT_EQ(line.text, &line == &scripted::log.status.back() ? "" : "Decoding TIFF");
    }
    return percentages;
}

// The output of the program itself, and the lines of the library.
std::pair<std::string, std::string> split_output(const std::string& printed)
{
    std::pair<std::string, std::string> parts;
    std::istringstream lines(printed);
    for (std::string line; std::getline(lines, line);) {
        const bool by_library =
            line.compare(0, 10, "TIFF ERROR") == 0 || line.compare(0, 12, "TIFF WARNING") == 0;
        (by_library ? parts.second : parts.first) += line + "\n";
    }
    return parts;
}

} // namespace

void tiff_test::start_over()
{
    failing_calls::plan = {};
    reset_tiff();
    reset_image_state();
    reset_layout();
    scripted::reset();
    cnb_default_buffer_drop();
}

bool tiff_test::open(const file_bytes& file, unsigned char before)
{
    testing::internal::CaptureStderr();
    scripted::set_picture(file);
    const bool opened = examine_tiff_file() == 0;
    if (opened) {
        layout_full_size();
        scripted::provide_buffer(image_decoded_size, before);
    }
    printed = testing::internal::GetCapturedStderr();
    return opened;
}

int tiff_test::decode()
{
    testing::internal::CaptureStderr();
    const int result = decode_by_photometric();
    std::tie(printed, printed_by_library) = split_output(testing::internal::GetCapturedStderr());
    return result;
}

void tiff_test::decode_directly()
{
    decode_by_photometric();
}

bool tiff_test::expect_drawn_by_rules(const file_bytes& file, const tiff_literal_options& options)
{
    start_over();
    if (!open(file, options.before)) {
        return false;
    }
    if (image_chroma_x_shift != 0 || image_chroma_y_shift != 0) {
        return false;
    }
    testing::internal::CaptureStderr();
    const tiff_literal_result wanted = draw_tiff_literally(file, options);
    expected_from_library = split_output(testing::internal::GetCapturedStderr()).second;
    failing_calls::plan.tiff_read_strip = options.read_strip;
    scripted::plan.fail_mapping = static_cast<int>(options.failing_mapping);
    if (options.passes != ~size_t{0}) {
        scripted::plan.die_after_idle = static_cast<int>(options.passes);
    }
    EXPECT_EQ(decode(), 0);
    EXPECT_TRUE(allocation() == wanted.allocation);
    EXPECT_EQ(printed, wanted.printed);
    EXPECT_EQ(progress(), wanted.progress);
    return true;
}

file_bytes tiff_test::allocation()
{
    return {scripted::buffer(), scripted::buffer() + scripted::buffer_size()};
}

unsigned tiff_test::sample(uint64_t offset, uint64_t stride, uint64_t x, uint64_t y)
{
    return scripted::buffer()[offset + y * stride + x];
}

std::vector<unsigned> tiff_test::pixel(uint64_t x, uint64_t y)
{
    return {sample(image_offset_Y, image_stride_Y, x, y),
            sample(image_offset_U, image_stride_U, x, y),
            sample(image_offset_V, image_stride_V, x, y)};
}
