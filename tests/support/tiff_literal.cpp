#include "tests/support/tiff_literal.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include <tiffio.h>

#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"

namespace {

using file_bytes = std::vector<unsigned char>;

struct plane {
    char name; // in the message of a failed mapping
    uint64_t offset;
    uint64_t stride;
    int black; // -1: not filled
};

struct model {
    uint32_t photometric;
    uint64_t band;
    bool has_chroma;
    bool is_filled;
    char alpha_name;
    size_t colours; // samples of a pixel without alpha
};

constexpr model models[] = {
    {2, 2048, true, true, 'V', 3},  {0, 64, false, true, 'A', 1}, {1, 64, false, true, 'A', 1},
    {6, 2048, true, false, 'V', 3}, {5, 64, true, true, 'A', 4},  {3, 2048, true, true, 'A', 1},
};

using samples = std::array<int, 4>; // Y, U, V, A

samples yuv_of_rgb(int r, int g, int b)
{
    return {(66 * r + 129 * g + 25 * b + 4096) >> 8, (-38 * r - 74 * g + 112 * b + 32768) >> 8,
            (112 * r - 94 * g - 18 * b + 32768) >> 8, 0};
}

samples yuv_of_cmyk(const unsigned char* ink)
{
    const int w = 255 - ink[3];
    samples yuv = yuv_of_rgb(w - ink[0] * w / 255, w - ink[1] * w / 255, w - ink[2] * w / 255);
    yuv[0] = std::max(yuv[0], 0);
    yuv[1] = std::clamp(yuv[1], 0, 255);
    yuv[2] = std::clamp(yuv[2], 0, 255);
    return yuv;
}

int luma(int y)
{
    return y * 219 / 255 + 16;
}

int chroma(int c)
{
    return (c - 128) * 224 / 255 + 128;
}

class drawing {
public:
    drawing(const file_bytes& file, const tiff_literal_options& options);
    ~drawing() { TIFFClose(image_); }
    drawing(const drawing&) = delete;
    drawing& operator=(const drawing&) = delete;

    void draw();
    tiff_literal_result result;

private:
    bool map(uint64_t row, uint64_t rows);
    void fill(uint64_t row, uint64_t rows);
    uint64_t read(uint64_t row, uint64_t rows);
    void convert(uint64_t row, uint64_t rows);
    void convert_row(uint64_t row, const unsigned char* source);
    void convert_bits(uint64_t row, const unsigned char* source);
    samples convert_pixel(const unsigned char* source) const;
    int64_t read_strip(uint32_t strip, unsigned char* to, int64_t size) const;

    const tiff_literal_options& options_;
    TIFF* image_;
    model model_ = {};
    std::vector<plane> planes_;
    size_t mappings_ = 0;
    file_bytes strip_;
    uint16_t* colours_[3] = {};
};

drawing::drawing(const file_bytes& file, const tiff_literal_options& options) : options_(options)
{
    const int fd = memfd_create("literal", MFD_CLOEXEC);
    if (write(fd, file.data(), file.size()) != static_cast<ssize_t>(file.size())) {
        abort();
    }
    lseek(fd, 0, SEEK_SET);
    image_ = TIFFFdOpen(fd, "picture", "rm");
    model_ = *std::find_if(std::begin(models), std::end(models),
                           [](const model& m) { return m.photometric == tiff_photometric; });
    const bool filled = model_.is_filled;
    planes_.push_back({'Y', image_offset_Y, image_stride_Y, filled ? 16 : -1});
    if (model_.has_chroma) {
        planes_.push_back({'U', image_offset_U, image_stride_U, filled ? 128 : -1});
        planes_.push_back({'V', image_offset_V, image_stride_V, filled ? 128 : -1});
    }
    if (image_has_alpha_channel != 0) {
        planes_.push_back({model_.alpha_name, image_offset_A, image_stride_A, filled ? 255 : -1});
    }
    result.allocation.assign(image_decoded_size, options.before);
    TIFFGetField(image_, TIFFTAG_COLORMAP, &colours_[0], &colours_[1], &colours_[2]);
}

bool drawing::map(uint64_t row, uint64_t rows)
{
    for (const plane& p : planes_) {
        ++mappings_;
        const bool fits = p.offset + (row + rows) * p.stride <= result.allocation.size();
        if (!fits || mappings_ == options_.failing_mapping) {
            result.printed += std::string("Failed to memory-map ") + p.name + " plane\n";
            return false;
        }
    }
    return true;
}

void drawing::fill(uint64_t row, uint64_t rows)
{
    for (const plane& p : planes_) {
        if (p.black >= 0) {
            memset(result.allocation.data() + p.offset + row * p.stride, p.black, rows * p.stride);
        }
    }
}

int64_t drawing::read_strip(uint32_t strip, unsigned char* to, int64_t size) const
{
    return options_.read_strip ? options_.read_strip(strip, to, size)
                               : TIFFReadEncodedStrip(image_, strip, to, size);
}

uint64_t drawing::read(uint64_t row, uint64_t rows)
{
    uint64_t rem = std::min<uint64_t>(rows, tiff_stripheight) * tiff_bytes_per_row;
    if (rem > tiff_stripsize) {
        result.printed += "WARNING: bytes for reading strip exceed recommended stripsize\n";
        rem = tiff_stripsize;
    }
    strip_.assign(rem + uint64_t{6} * tiff_width + tiff_bytes_per_row, 0);
    uint64_t got = 0;
    for (;;) {
        const int64_t n = read_strip(static_cast<uint32_t>(row / tiff_stripheight),
                                     strip_.data() + got, static_cast<int64_t>(rem));
        if (n == 0) {
            result.printed += "TIFFReadEncodedStrip() returned 0 prematurely\n";
            return got;
        }
        if (n < 0 || static_cast<uint64_t>(n) > rem) {
            result.printed += "TIFFReadEncodedStrip() returned too many bytes\n";
            return got;
        }
        got += static_cast<uint64_t>(n);
        rem -= static_cast<uint64_t>(n);
        if (rem == 0) {
            return got;
        }
    }
}

samples drawing::convert_pixel(const unsigned char* s) const
{
    switch (tiff_photometric) {
    case 2:
        return yuv_of_rgb(s[0], s[1], s[2]);
    case 3:
        return yuv_of_rgb(colours_[0][s[0]] >> 8, colours_[1][s[0]] >> 8, colours_[2][s[0]] >> 8);
    case 5:
        return yuv_of_cmyk(s);
    case 6:
        return {luma(s[0]), chroma(s[1]), chroma(s[2]), 0};
    default:
        return {luma(s[0]), 0, 0, 0};
    }
}

void drawing::convert_row(uint64_t row, const unsigned char* source)
{
    const bool alpha = image_has_alpha_channel != 0;
    const size_t step = model_.colours + (alpha ? 1 : 0);
    for (uint64_t x = 0; x < tiff_width; ++x) {
        const unsigned char* pixel = source + x * step;
        samples s = convert_pixel(pixel);
        s[planes_.size() - 1] = alpha ? pixel[step - 1] : s[planes_.size() - 1];
        for (size_t i = 0; i < planes_.size(); ++i) {
            result.allocation[planes_[i].offset + row * planes_[i].stride + x] =
                static_cast<unsigned char>(s[i]);
        }
    }
}

void drawing::convert_bits(uint64_t row, const unsigned char* source)
{
    for (uint64_t x = 0; x < (uint64_t{tiff_width} + 7) / 8 * 8; ++x) {
        const bool bit = (source[x / 8] << x % 8 & 0x80) != 0;
        result.allocation[image_offset_Y + row * image_stride_Y + x] =
            bit == (tiff_photometric == 1) ? 235 : 16;
    }
}

void drawing::convert(uint64_t row, uint64_t rows)
{
    for (uint64_t y = 0; y < rows; ++y) {
        const unsigned char* source = strip_.data() + y * tiff_bytes_per_row;
        if (tiff_bps == 8) {
            convert_row(row + y, source);
        } else if (tiff_bps == 1 && tiff_photometric <= 1 && image_has_alpha_channel == 0) {
            convert_bits(row + y, source);
        }
    }
}

void drawing::draw()
{
    const auto height = static_cast<uint64_t>(image_height);
    uint64_t row = 0;
    for (size_t pass = 0; pass < options_.passes && row < height; ++pass) {
        result.progress.push_back(static_cast<int>(row * 100 / height));
        const uint64_t rows = std::min(model_.band, height - row);
        if (!map(row, rows)) {
            break;
        }
        fill(row, rows);
        const uint64_t decoded = read(row, rows) / tiff_bytes_per_row;
        if (decoded == 0) {
            break;
        }
        convert(row, decoded);
        row += decoded;
    }
    result.progress.push_back(100);
}

} // namespace

tiff_literal_result draw_tiff_literally(const file_bytes& file, const tiff_literal_options& options)
{
    drawing canvas(file, options);
    canvas.draw();
    return canvas.result;
}
