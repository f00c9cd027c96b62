#include "tests/support/png_literal.h"

#include <algorithm>

#include "bin/framebuffer/layout.h"
#include "tests/support/png_samples.h"

namespace {

using bytes = std::vector<unsigned char>;

constexpr unsigned grey = 0, rgb = 2, indexed = 3, grey_alpha = 4, rgba = 6;

class drawing {
public:
    drawing(const png_samples& picture, const png_literal_options& options)
        : picture_(picture), planes_(image_decoded_size, options.before),
          staging_(png_batch_rows(picture.colour_type) * image_stride_Y * picture.channels)
    {
    }

    // False when the rows end before the batch is complete.
    bool draw_batch(size_t first, size_t rows)
    {
        if (picture_.colour_type != grey && picture_.colour_type != grey_alpha) {
            fill(first, rows);
        }
        if (!read(first, rows)) {
            return false;
        }
        for (size_t i = 0; i < rows * image_stride_Y; ++i) {
            convert(first * image_stride_Y + i, staging_.data() + i * picture_.channels);
        }
        return true;
    }

    const bytes& planes() const { return planes_; }

private:
    void fill(size_t first, size_t rows)
    {
        for (size_t i = first * image_stride_Y; i < (first + rows) * image_stride_Y; ++i) {
            planes_[image_offset_Y + i] = 16;
            planes_[image_offset_U + i] = 128;
            planes_[image_offset_V + i] = 128;
            if (picture_.colour_type == rgba) {
                planes_[image_offset_A + i] = 255;
            }
        }
    }

    bool read(size_t first, size_t rows)
    {
        const auto& delivered = picture_.passes[0].delivered;
        const size_t pitch = image_stride_Y * picture_.channels;
        for (size_t row = first; row < std::min(first + rows, delivered.size()); ++row) {
            if (picture_.colour_type == grey) {
                std::ranges::copy(delivered[row],
                                  planes_.begin() + static_cast<ptrdiff_t>(row * image_stride_Y));
            } else {
                std::ranges::copy(delivered[row],
                                  staging_.begin() + static_cast<ptrdiff_t>((row - first) * pitch));
            }
        }
        const bool is_last = first + rows == picture_.height;
        return delivered.size() >= first + rows && (picture_.complete || !is_last);
    }

    void convert(size_t at, const unsigned char* pixel)
    {
        switch (picture_.colour_type) {
        case grey: {
            int sample = planes_[image_offset_Y + at];
            if (picture_.depth < 8) {
                sample = sample * 255 / ((1 << picture_.depth) - 1) % 256;
            }
            planes_[image_offset_Y + at] = static_cast<unsigned char>(sample * 219 / 255 + 16);
            break;
        }
        case grey_alpha:
            planes_[image_offset_Y + at] = static_cast<unsigned char>(pixel[0] * 219 / 255 + 16);
            planes_[image_offset_A + at] = pixel[1];
            break;
        case indexed:
            if (pixel[0] < picture_.palette.size()) {
                paint(at, picture_.palette[pixel[0]].data());
            } else {
                planes_[image_offset_Y + at] = 16;
                planes_[image_offset_U + at] = planes_[image_offset_V + at] = 128;
            }
            break;
        case rgba:
            planes_[image_offset_A + at] = pixel[3];
            [[fallthrough]];
        case rgb:
            paint(at, pixel);
            break;
        default:
            break;
        }
    }

    void paint(size_t at, const unsigned char* colour)
    {
        const int r = colour[0];
        const int g = colour[1];
        const int b = colour[2];
        planes_[image_offset_Y + at] =
            static_cast<unsigned char>((66 * r + 129 * g + 25 * b + 4096) >> 8);
        planes_[image_offset_U + at] =
            static_cast<unsigned char>((-38 * r - 74 * g + 112 * b + 32768) >> 8);
        planes_[image_offset_V + at] =
            static_cast<unsigned char>((112 * r - 94 * g - 18 * b + 32768) >> 8);
    }

    const png_samples& picture_;
    bytes planes_;
    bytes staging_;
};

} // namespace

size_t png_batch_rows(unsigned colour_type)
{
    return colour_type == grey ? 128 : 64;
}

bytes draw_png_literally(const bytes& file, const png_literal_options& options)
{
    const png_samples picture = read_png_samples(file);
    drawing canvas(picture, options);
    const size_t batch = png_batch_rows(picture.colour_type);
    size_t row = 0;
    size_t drawn = 0;
    while (row < picture.height && drawn < options.batches) {
        const size_t rows = std::min<size_t>(batch, picture.height - row);
        if (!canvas.draw_batch(row, rows)) {
            break;
        }
        row += rows;
        ++drawn;
    }
    return canvas.planes();
}
