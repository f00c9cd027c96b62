#include "tests/unit/decode/webp_fixture.h"

#include <cstring>
#include <random>

#include "bin/decode/webp.h"
#include "bin/examine/image_state.h"
#include "bin/examine/webp.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"
#include "tests/support/failing_calls.h"
#include "tests/support/file_contents.h"
#include "tests/support/scripted_platform.h"

namespace {

struct plain_plane {
    uint64_t offset;
    uint64_t stride;
    uint64_t rows;       // allocated
    uint64_t black_rows; // before anything is drawn
    unsigned char black;
};

std::vector<plain_plane> plain_planes()
{
    const auto height = static_cast<uint64_t>(image_height);
    const uint64_t rows = (height + 15) / 16 * 16;
    const uint64_t stride = (static_cast<uint64_t>(image_width) + 15) / 16 * 16;
    const uint64_t Y = stride * rows;
    const uint64_t U = Y / 4;
    std::vector<plain_plane> planes = {{0, stride, rows, height, 16},
                                       {Y, stride / 2, rows / 2, rows / 2, 128},
                                       {Y + U, stride / 2, rows / 2, rows / 2, 128}};
    if (image_has_alpha_channel != 0) {
        planes.push_back({Y + U + U, stride, rows, height, 16});
    }
    return planes;
}

void blacken(const std::vector<plain_plane>& planes, file_bytes& area)
{
    for (const plain_plane& plane : planes) {
        memset(area.data() + plane.offset, plane.black, plane.black_rows * plane.stride);
    }
}

// Sample by sample: each row below the picture's last chroma row is a copy of the row above it.
void extend_chroma(const std::vector<plain_plane>& planes, file_bytes& area)
{
    const auto drawn_rows = static_cast<uint64_t>((image_height + 1) / 2);
    for (const size_t p : {1U, 2U}) {
        const plain_plane& plane = planes[p];
        for (uint64_t i = drawn_rows * plane.stride; i < plane.rows * plane.stride; ++i) {
            area[plane.offset + i] = area[plane.offset + i - plane.stride];
        }
    }
}

constexpr size_t riff_header = 12;
constexpr size_t chunk_header = 8;

uint32_t little_endian(const file_bytes& file, size_t at)
{
    return file[at] | uint32_t{file[at + 1]} << 8U | uint32_t{file[at + 2]} << 16U |
           static_cast<uint32_t>(file[at + 3]) << 24U;
}

void set_little_endian(file_bytes& file, size_t at, size_t value)
{
    for (size_t i = 0; i < 4; ++i) {
        file[at + i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

void copy_rows(const uint8_t* from, int stride, int width, int rows, uint8_t* to,
               uint64_t to_stride)
{
    for (int y = 0; y < rows; ++y) {
        memcpy(to + static_cast<uint64_t>(y) * to_stride, from + static_cast<ptrdiff_t>(y) * stride,
               static_cast<size_t>(width));
    }
}

} // namespace

file_bytes noise(int width, int height, bool alpha, unsigned seed)
{
    std::mt19937 random(seed);
    file_bytes rgba(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    for (size_t i = 0; i < rgba.size(); ++i) {
        rgba[i] = i % 4 == 3 && !alpha ? 255 : static_cast<unsigned char>(random());
    }
    if (alpha) {
        rgba[3] = 77; // makes a picture of one pixel transparent, too
    }
    return rgba;
}

file_bytes webp_of_tests(const std::string& name)
{
    return read_test_file("webp/" + name);
}

file_bytes first_bytes(const file_bytes& file, size_t count)
{
    return {file.begin(), file.begin() + static_cast<ptrdiff_t>(count)};
}

file_bytes short_bitstream(const file_bytes& file, size_t count)
{
    file_bytes cut = first_bytes(file, count & ~size_t{1});
    size_t chunk = riff_header;
    while (chunk + chunk_header <= cut.size()) {
        const size_t next = chunk + chunk_header + ((little_endian(file, chunk + 4) + 1) & ~1U);
        if (next >= cut.size()) {
            set_little_endian(cut, chunk + 4, cut.size() - chunk - chunk_header);
        }
        chunk = next;
    }
    set_little_endian(cut, 4, cut.size() - 8);
    return cut;
}

void webp_test::start_over()
{
    reset_webp();
    reset_image_state();
    reset_layout();
    scripted::reset();
    cnb_default_buffer_drop();
    failing_calls::plan = {};
}

bool webp_test::open(const file_bytes& file, unsigned char before)
{
    start_over();
    scripted::set_picture(file);
    testing::internal::CaptureStderr();
    const bool examined = examine_webp_file() == 0;
    if (examined) {
        layout_full_size();
    }
    printed = testing::internal::GetCapturedStderr();
    if (examined) {
        scripted::provide_buffer(image_decoded_size, before);
    }
    return examined;
}

int webp_test::decode()
{
    testing::internal::CaptureStderr();
    const int result = full_decode_webp_yuv();
    printed = testing::internal::GetCapturedStderr();
    return result;
}

file_bytes webp_test::allocation()
{
    return {scripted::buffer(), scripted::buffer() + scripted::buffer_size()};
}

drawn_picture drawn_by_the_rules(const file_bytes& file, unsigned char before)
{
    drawn_picture drawn = {file_bytes(image_decoded_size, before), VP8_STATUS_OK};
    const std::vector<plain_plane> planes = plain_planes();
    blacken(planes, drawn.area);
    WebPDecoderConfig config;
    EXPECT_NE(WebPInitDecoderConfig(&config), 0);
    config.output.colorspace = planes.size() == 4 ? MODE_YUVA : MODE_YUV;
    config.output.is_external_memory = 1;
    WebPYUVABuffer& out = config.output.u.YUVA;
    uint8_t* const area = drawn.area.data();
    out.y = area + planes[0].offset;
    out.u = area + planes[1].offset;
    out.v = area + planes[2].offset;
    out.y_stride = static_cast<int>(planes[0].stride);
    out.u_stride = out.v_stride = static_cast<int>(planes[1].stride);
    out.y_size = planes[0].rows * planes[0].stride;
    out.u_size = out.v_size = planes[1].rows * planes[1].stride;
    if (planes.size() == 4) {
        out.a = area + planes[3].offset;
        out.a_stride = static_cast<int>(planes[3].stride);
        out.a_size = planes[3].rows * planes[3].stride;
    }
    drawn.status = WebPDecode(file.data(), file.size(), &config);
    extend_chroma(planes, drawn.area);
    return drawn;
}

file_bytes assembled_from_own_planes(const file_bytes& file)
{
    file_bytes area(image_decoded_size);
    const std::vector<plain_plane> planes = plain_planes();
    blacken(planes, area);
    WebPDecoderConfig config;
    EXPECT_NE(WebPInitDecoderConfig(&config), 0);
    config.output.colorspace = planes.size() == 4 ? MODE_YUVA : MODE_YUV;
    EXPECT_EQ(WebPDecode(file.data(), file.size(), &config), VP8_STATUS_OK);
    const WebPYUVABuffer& own = config.output.u.YUVA;
    const int half_width = (image_width + 1) / 2;
    const int half_height = (image_height + 1) / 2;
    copy_rows(own.y, own.y_stride, image_width, image_height, area.data(), planes[0].stride);
    copy_rows(own.u, own.u_stride, half_width, half_height, area.data() + planes[1].offset,
              planes[1].stride);
    copy_rows(own.v, own.v_stride, half_width, half_height, area.data() + planes[2].offset,
              planes[2].stride);
    if (planes.size() == 4) {
        copy_rows(own.a, own.a_stride, image_width, image_height, area.data() + planes[3].offset,
                  planes[3].stride);
    }
    WebPFreeDecBuffer(&config.output);
    extend_chroma(planes, area);
    return area;
}
