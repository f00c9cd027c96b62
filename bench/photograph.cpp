#include "bench/photograph.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>

#include <jpeglib.h>

namespace {

constexpr int enlargement = 2;
constexpr int dither_noise = 17; // levels: two cells of the palette's look-up table
constexpr size_t palette_size = 256;
constexpr size_t cells = 32768;

// Mirrors coordinates at the photograph's edges, so that tiles join without a seam.
int mirrored(int at, int size)
{
    const int folded = at % (2 * size);
    return folded < size ? folded : 2 * size - 1 - folded;
}

int noise(int component, int x, int y, int levels)
{
    const auto even = static_cast<int>(noise_bits(component, x, y) >> 20);
    return even % levels - levels / 2;
}

size_t cell_of(unsigned r, unsigned g, unsigned b)
{
    return size_t{r >> 3 << 10 | g >> 3 << 5 | b >> 3};
}

// The middle of a cell; channel 0 is red.
int channel_of(size_t cell, int channel)
{
    return static_cast<int>(cell >> (5 * (2 - channel)) & 31) * 8 + 4;
}

int distance(size_t cell, size_t other)
{
    int sum = 0;
    for (int channel = 0; channel < 3; ++channel) {
        const int difference = channel_of(cell, channel) - channel_of(other, channel);
        sum += difference * difference;
    }
    return sum;
}

std::vector<size_t> most_frequent_cells(const photograph& from)
{
    std::vector<int> counts(cells);
    for (size_t i = 0; i < from.samples.size(); i += 3) {
        ++counts[cell_of(from.samples[i], from.samples[i + 1], from.samples[i + 2])];
    }
    std::vector<size_t> order(cells);
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&counts](size_t a, size_t b) { return counts[a] > counts[b]; });
    order.resize(palette_size);
    return order;
}

} // namespace

void give_up_drawing(const std::string& what)
{
    fprintf(stderr, "pictures: %s\n", what.c_str());
    exit(EXIT_FAILURE);
}

void write_drawn_file(const std::string& path, const void* bytes, size_t size)
{
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr || fwrite(bytes, 1, size, file) != size || fclose(file) != 0) {
        give_up_drawing("cannot write " + path);
    }
}

photograph read_photograph(const std::string& path, photo_colours colours)
{
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        give_up_drawing("cannot read " + path);
    }
    jpeg_decompress_struct cinfo = {};
    jpeg_error_mgr errors = {};
    cinfo.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, file);
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = colours == photo_colours::RGB ? JCS_RGB : JCS_YCbCr;
    jpeg_start_decompress(&cinfo);
    photograph result = {
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

uint32_t noise_bits(int component, int x, int y)
{
    auto hash = static_cast<uint32_t>(x) * 2654435761U ^ static_cast<uint32_t>(y) * 40503U ^
                static_cast<uint32_t>(component) * 97U;
    hash ^= hash >> 15;
    return hash * 2246822519U;
}

// Interpolates bilinearly between the photograph's samples.
unsigned char enlarged(const photograph& from, int component, int x, int y, int noise_levels)
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
    return static_cast<unsigned char>(
        std::clamp(sample + noise(component, x, y, noise_levels), 0, 255));
}

unsigned char large_alpha(int x, int y)
{
    const int distance = std::abs(x - large_width / 2) + std::abs(y - large_height / 2);
    return static_cast<unsigned char>(std::clamp(384 - distance / 10, 0, 255));
}

std::vector<unsigned char> draw_large_rows(const photograph& from, int channels, int first_row,
                                           int rows, int noise_levels)
{
    std::vector<unsigned char> pixels;
    pixels.reserve(static_cast<size_t>(large_width) * static_cast<size_t>(rows) *
                   static_cast<size_t>(channels));
    for (int y = first_row; y < first_row + rows; ++y) {
        for (int x = 0; x < large_width; ++x) {
            for (int component = 0; component < 3; ++component) {
                pixels.push_back(enlarged(from, component, x, y, noise_levels));
            }
            if (channels == 4) {
                pixels.push_back(large_alpha(x, y));
            }
        }
    }
    return pixels;
}

photo_palette make_palette(const photograph& from)
{
    const std::vector<size_t> chosen = most_frequent_cells(from);
    photo_palette palette;
    for (const size_t cell : chosen) {
        for (int channel = 0; channel < 3; ++channel) {
            palette.colours.push_back(static_cast<unsigned char>(channel_of(cell, channel)));
        }
    }
    for (size_t cell = 0; cell < cells; ++cell) {
        const auto nearest =
            std::min_element(chosen.begin(), chosen.end(), [cell](size_t a, size_t b) {
                return distance(cell, a) < distance(cell, b);
            });
        palette.nearest.push_back(static_cast<unsigned char>(nearest - chosen.begin()));
    }
    return palette;
}

unsigned char large_index(const photograph& from, const photo_palette& palette, int x, int y)
{
    return palette.nearest[cell_of(enlarged(from, 0, x, y, dither_noise),
                                   enlarged(from, 1, x, y, dither_noise),
                                   enlarged(from, 2, x, y, dither_noise))];
}
