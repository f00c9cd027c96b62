#include "tests/support/jpeg_literal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"

namespace {

constexpr size_t pitch = 16384 + 64; // at least as wide as any row of blocks
constexpr size_t pointers = 64;      // at least as many as the rows of any row group

constexpr size_t k_plane = 3; // holds the rows of one group; not in the allocation

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

std::vector<literal_plane> make_planes(unsigned char before, int components)
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
    if (components == 4) {
        planes.push_back({0, image_stride_Y, 0, 0, {}});
        planes[k_plane].rows.assign(16, std::vector<unsigned char>(pitch, 0));
    }
    return planes;
}

void fill_band(std::vector<literal_plane>& planes, size_t row, size_t rows)
{
    for (size_t i = 0; i < planes.size() && i != k_plane; ++i) {
        literal_plane& plane = planes[i];
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
        const size_t first = i == k_plane ? 0 : row >> planes[i].row_shift;
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
    for (size_t i = 0; i < planes.size() && i != k_plane; ++i) {
        literal_plane& plane = planes[i];
        const size_t first = row >> plane.row_shift;
        for (size_t y = first; y < first + (rows >> plane.row_shift); ++y) {
            for (size_t x = 0; x < plane.stride; ++x) {
                plane.rows[y][x] = rescaled(plane.rows[y][x], plane.black);
            }
        }
    }
}

// YCCK: stored samples are inverted, then darkened by the K sample at the same position of the
// group. Chroma is converted over all rows of the group, including rows of the band below the
// decoded ones.
void fold_k_into_yuv(std::vector<literal_plane>& planes, size_t row, size_t rows)
{
    for (size_t i = 0; i < k_plane; ++i) {
        const size_t first = row >> planes[i].row_shift;
        const size_t decoded = rows >> planes[i].row_shift;
        for (size_t y = 0; y < rows && first + y < planes[i].rows.size(); ++y) {
            for (size_t x = 0; x < planes[i].stride; ++x) {
                unsigned char& sample = planes[i].rows[first + y][x];
                const int k = planes[k_plane].rows[y][x];
                const int value = y < decoded ? 255 - sample : sample;
                if (i == 0) {
                    sample = static_cast<unsigned char>(value * k / 255);
                } else if (image_chroma_x_shift == 0) {
                    sample = static_cast<unsigned char>((value - 128) * k / 255 - 128);
                } else {
                    sample = static_cast<unsigned char>(value);
                }
            }
        }
    }
    rescale_group(planes, row, rows);
}

void fold_k_into_cmy(std::vector<literal_plane>& planes, size_t row, size_t rows)
{
    for (size_t y = 0; y < rows; ++y) {
        for (size_t x = 0; x < image_stride_Y; ++x) {
            const int k = planes[k_plane].rows[y][x];
            int rgb[3];
            for (size_t i = 0; i < 3; ++i) {
                rgb[i] = planes[i].rows[row + y][x] * k / 255;
            }
            const int yuv[3] = {66 * rgb[0] + 129 * rgb[1] + 25 * rgb[2] + 4096,
                                -38 * rgb[0] - 74 * rgb[1] + 112 * rgb[2] + 32768,
                                112 * rgb[0] - 94 * rgb[1] - 18 * rgb[2] + 32768};
            for (size_t i = 0; i < 3; ++i) {
                planes[i].rows[row + y][x] = static_cast<unsigned char>(yuv[i] >> 8);
            }
        }
    }
}

void convert_group(const jpeg_decompress_struct& cinfo, std::vector<literal_plane>& planes,
                   size_t row, size_t rows)
{
    switch (cinfo.jpeg_color_space) {
    case JCS_YCCK:
        return fold_k_into_yuv(planes, row, rows);
    case JCS_CMYK:
        return fold_k_into_cmy(planes, row, rows);
    default:
        return rescale_group(planes, row, rows);
    }
}

void draw(jpeg_decompress_struct& cinfo, std::vector<literal_plane>& planes,
          const literal_options& options)
{
    const auto buffer_height = static_cast<size_t>(image_buffer_height);
    const size_t max_band = image_is_monochrome != 0 ? 64 : 32;
    size_t row = 0;
    for (size_t group = 0; row < buffer_height && row < cinfo.output_height; ++group) {
        const size_t band = std::min(max_band, buffer_height - row);
        if (group < options.groups || options.fill_one_more) {
            fill_band(planes, row, band);
        }
        if (group >= options.groups) {
            return;
        }
        const size_t rows = read_group(cinfo, planes, row, band);
        convert_group(cinfo, planes, row, rows);
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
    if (cinfo.num_components == 4) {
        const bool ycck = cinfo.saw_Adobe_marker && cinfo.Adobe_transform != 0;
        cinfo.jpeg_color_space = ycck ? JCS_YCCK : JCS_CMYK;
    }
    cinfo.out_color_space = cinfo.jpeg_color_space;
    cinfo.raw_data_out = TRUE;
    cinfo.do_fancy_upsampling = FALSE;
    jpeg_start_decompress(&cinfo);
    std::vector<literal_plane> planes = make_planes(options.before, cinfo.num_components);
    draw(cinfo, planes, options);
    jpeg_destroy_decompress(&cinfo);

    std::vector<unsigned char> allocation(image_decoded_size, options.before);
    for (size_t i = 0; i < planes.size() && i != k_plane; ++i) {
        const literal_plane& plane = planes[i];
        for (size_t y = 0; y < plane.rows.size(); ++y) {
            memcpy(allocation.data() + plane.offset + y * plane.stride, plane.rows[y].data(),
                   plane.stride);
        }
    }
    return allocation;
}
