#include "tests/support/jpeg_literal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"

namespace {

constexpr size_t pitch = 16384 + 64; // no row of blocks is wider
constexpr size_t pointers = 64;      // no row group is higher

struct literal_plane {
    uint64_t offset;
    uint64_t stride;
    unsigned row_shift;
    unsigned char black;
    std::vector<std::vector<unsigned char>> rows; // each `pitch` wide
};

[[noreturn]] void stop(j_common_ptr cinfo)
{
    cinfo->err->output_message(cinfo);
    abort();
}

void say_nothing(j_common_ptr /*cinfo*/) {}

unsigned char rescaled(unsigned char sample, unsigned char black)
{
    const int value = sample;
    return static_cast<unsigned char>(black == 16 ? value * 219 / 255 + 16
                                                  : (value - 128) * 224 / 255 + 128);
}

std::vector<literal_plane> make_planes(unsigned char before)
{
    std::vector<literal_plane> planes = {{image_offset_Y, image_stride_Y, 0, 16, {}}};
    if (image_is_monochrome == 0) {
        planes.push_back({image_offset_U, image_stride_U, image_chroma_y_shift, 128, {}});
        planes.push_back({image_offset_V, image_stride_V, image_chroma_y_shift, 128, {}});
    }
    for (literal_plane& plane : planes) {
        const auto rows = static_cast<size_t>(image_buffer_height) >> plane.row_shift;
        plane.rows.assign(rows, std::vector<unsigned char>(pitch, before));
    }
    return planes;
}

void fill_band(std::vector<literal_plane>& planes, size_t row, size_t rows)
{
    for (literal_plane& plane : planes) {
        for (size_t y = row >> plane.row_shift; y < (row + rows) >> plane.row_shift; ++y) {
            std::fill(plane.rows[y].begin(), plane.rows[y].end(), plane.black);
        }
    }
}

size_t read_group(jpeg_decompress_struct& cinfo, std::vector<literal_plane>& planes, size_t row,
                  size_t band)
{
    std::vector<unsigned char> surplus(pitch);
    std::vector<std::vector<JSAMPROW>> rows(planes.size());
    std::vector<JSAMPARRAY> components;
    for (size_t i = 0; i < planes.size(); ++i) {
        const size_t first = row >> planes[i].row_shift;
        rows[i].assign(pointers, surplus.data());
        for (size_t y = 0; y < std::min<size_t>(band, 16) >> planes[i].row_shift; ++y) {
            rows[i][y] = planes[i].rows[first + y].data();
        }
        components.push_back(rows[i].data());
    }
    return jpeg_read_raw_data(&cinfo, components.data(), static_cast<JDIMENSION>(band));
}

void rescale_group(std::vector<literal_plane>& planes, size_t row, size_t rows)
{
    for (literal_plane& plane : planes) {
        const size_t first = row >> plane.row_shift;
        for (size_t y = first; y < first + (rows >> plane.row_shift); ++y) {
            for (size_t x = 0; x < plane.stride; ++x) {
                plane.rows[y][x] = rescaled(plane.rows[y][x], plane.black);
            }
        }
    }
}

void draw(jpeg_decompress_struct& cinfo, std::vector<literal_plane>& planes,
          const literal_options& options)
{
    const auto buffer_height = static_cast<size_t>(image_buffer_height);
    const size_t most = image_is_monochrome != 0 ? 64 : 32;
    size_t row = 0;
    for (size_t group = 0; row < buffer_height && row < cinfo.output_height; ++group) {
        const size_t band = std::min(most, buffer_height - row);
        if (group < options.groups || options.fill_one_more) {
            fill_band(planes, row, band);
        }
        if (group >= options.groups) {
            return;
        }
        const size_t rows = read_group(cinfo, planes, row, band);
        rescale_group(planes, row, rows);
        row += rows;
    }
}

} // namespace

std::vector<unsigned char> draw_literally(const jpeg_writer::file_bytes& file,
                                          const literal_options& options)
{
    jpeg_decompress_struct cinfo = {};
    jpeg_error_mgr errors = {};
    cinfo.err = jpeg_std_error(&errors);
    errors.error_exit = stop;
    errors.output_message = say_nothing;
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, file.data(), file.size());
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = cinfo.jpeg_color_space;
    cinfo.raw_data_out = TRUE;
    cinfo.do_fancy_upsampling = FALSE;
    jpeg_start_decompress(&cinfo);
    std::vector<literal_plane> planes = make_planes(options.before);
    draw(cinfo, planes, options);
    jpeg_destroy_decompress(&cinfo);

    std::vector<unsigned char> allocation(image_decoded_size, options.before);
    for (const literal_plane& plane : planes) {
        for (size_t y = 0; y < plane.rows.size(); ++y) {
            memcpy(allocation.data() + plane.offset + y * plane.stride, plane.rows[y].data(),
                   plane.stride);
        }
    }
    return allocation;
}
