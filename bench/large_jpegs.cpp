#include "bench/large_jpegs.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <jpeglib.h>

#include "tests/support/jpeg_writer.h"

namespace {

constexpr int width = 6000;
constexpr int height = 4000;
constexpr int enlargement = 2; // the photograph's finest detail is then that of a camera's picture
constexpr int noise_levels = 9;
constexpr int quality = 88;

constexpr large_jpeg pictures[] = {
    {"jpeg-420", 1.10},         {"jpeg-422", 1.10},  {"jpeg-444", 1.10},  {"jpeg-grey", 1.00},
    {"jpeg-progressive", 1.12}, {"jpeg-cmyk", 1.20}, {"jpeg-ycck", 1.20},
};

[[noreturn]] void give_up(const std::string& what)
{
    fprintf(stderr, "large_jpegs: %s\n", what.c_str());
    exit(EXIT_FAILURE);
}

// --- the photograph -----------------------------------------------------------------------------

struct photo {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> samples; // three components a pixel
};

photo read_photo(const std::string& path, J_COLOR_SPACE colour_space)
{
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        give_up("cannot read " + path);
    }
    jpeg_decompress_struct cinfo = {};
    jpeg_error_mgr errors = {};
    cinfo.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, file);
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = colour_space;
    jpeg_start_decompress(&cinfo);
    photo result = {
        static_cast<int>(cinfo.output_width), static_cast<int>(cinfo.output_height), {}};
    const size_t row_size = size_t{cinfo.output_width} * 3;
    result.samples.resize(row_size * cinfo.output_height);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = result.samples.data() + cinfo.output_scanline * row_size;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_destroy_decompress(&cinfo);
    fclose(file);
    return result;
}

// Mirrored at its edges, so that tiles meet without a seam.
int mirrored(int at, int size)
{
    const int folded = at % (2 * size);
    return folded < size ? folded : 2 * size - 1 - folded;
}

int noise(int component, int x, int y)
{
    auto hash = static_cast<uint32_t>(x) * 2654435761U ^ static_cast<uint32_t>(y) * 40503U ^
                static_cast<uint32_t>(component) * 97U;
    hash ^= hash >> 15;
    hash *= 2246822519U;
    return static_cast<int>((hash >> 20) % noise_levels) - noise_levels / 2;
}

// Bilinear between the photograph's samples. `x` and `y` in pixels of the large picture.
unsigned char enlarged(const photo& from, int component, int x, int y)
{
    const int left = x / enlargement;
    const int top = y / enlargement;
    const int right_share = x % enlargement;
    const int bottom_share = y % enlargement;
    const auto at = [&](int column, int row) {
        const auto index =
            static_cast<size_t>(mirrored(row, from.height)) * static_cast<size_t>(from.width) +
            static_cast<size_t>(mirrored(column, from.width));
        return int{from.samples[index * 3 + static_cast<size_t>(component)]};
    };
    const int upper = at(left, top) * (enlargement - right_share) + at(left + 1, top) * right_share;
    const int lower =
        at(left, top + 1) * (enlargement - right_share) + at(left + 1, top + 1) * right_share;
    const int sample =
        (upper * (enlargement - bottom_share) + lower * bottom_share) / (enlargement * enlargement);
    return static_cast<unsigned char>(std::clamp(sample + noise(component, x, y), 0, 255));
}

// --- the files ----------------------------------------------------------------------------------

jpeg_writer::picture describe(const std::string& name)
{
    if (name == "jpeg-grey") {
        return jpeg_writer::grey(width, height);
    }
    if (name == "jpeg-cmyk" || name == "jpeg-ycck") {
        return jpeg_writer::four(name == "jpeg-cmyk" ? JCS_CMYK : JCS_YCCK, width, height, {1, 1});
    }
    jpeg_writer::factors luma = {2, 2};
    if (name == "jpeg-422") {
        luma = {2, 1};
    } else if (name == "jpeg-444") {
        luma = {1, 1};
    }
    jpeg_writer::picture what = jpeg_writer::ycbcr(width, height, luma);
    what.progressive = name == "jpeg-progressive";
    return what;
}

} // namespace

std::span<const large_jpeg> large_jpegs()
{
    return pictures;
}

void write_large_jpeg(const std::string& name, const std::string& photograph,
                      const std::string& path)
{
    jpeg_writer::picture what = describe(name);
    const photo from = read_photo(photograph, name == "jpeg-cmyk" ? JCS_RGB : JCS_YCbCr);
    what.quality = quality;
    what.sample = [&](int component, int x, int y) -> unsigned char {
        if (component == 3) { // little black ink, most of it in the shadows
            return static_cast<unsigned char>(192 + enlarged(from, 0, x, y) / 4);
        }
        const bool subsampled = component != 0;
        const int step_x = subsampled ? what.sampling[0].h : 1;
        const int step_y = subsampled ? what.sampling[0].v : 1;
        return enlarged(from, component, x * step_x, y * step_y);
    };
    const jpeg_writer::file_bytes bytes = jpeg_writer::write(what);
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr || fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() ||
        fclose(file) != 0) {
        give_up("cannot write " + path);
    }
}
