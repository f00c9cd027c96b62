// Pictures as packed pixels, at their own size or another. Scaled rows have four floats a pixel.
// Colour is weighted by alpha, so that the colour of transparent pixels has no effect.
#include <algorithm>
#include <array>
#include <vector>

#include "client/boundary.h"
#include "client/convert/axis_filter.h"
#include "client/convert/picture_check.h"
#include "client/convert/rgb_rows.h"
#include "client/products.h"
#include "common/for_each_processor.h"

namespace {

constexpr size_t parts = 4; // of a pixel: red, green, blue and alpha
constexpr float whole = 255;

// Multiplies colour by alpha; alpha itself is copied.
FOR_EACH_PROCESSOR
void weight_by_alpha(const uint8_t* rgba, size_t width, float* __restrict to)
{
    for (size_t x = 0; x < width; ++x) {
        const float alpha = rgba[parts * x + 3];
        for (size_t c = 0; c < 3; ++c) {
            to[parts * x + c] = static_cast<float>(rgba[parts * x + c]) * (alpha / whole);
        }
        to[parts * x + 3] = alpha;
    }
}

FOR_EACH_PROCESSOR
void add_row(const float* row, float weight, size_t count, float* __restrict sum)
{
    for (size_t i = 0; i < count; ++i) {
        sum[i] += row[i] * weight;
    }
}

uint8_t to_byte(float value)
{
    return static_cast<uint8_t>(std::min(value + 0.5F, whole));
}

// Converts back to straight alpha. Transparent pixels become black.
FOR_EACH_PROCESSOR
void put_pixels(const float* row, size_t width, uint32_t channels, uint8_t* __restrict to)
{
    for (size_t x = 0; x < width; ++x, to += channels) {
        const float* pixel = row + parts * x;
        const float scale = pixel[3] > 0 ? whole / pixel[3] : 0;
        for (size_t c = 0; c < 3; ++c) {
            to[c] = to_byte(pixel[c] * scale);
        }
        if (channels == parts) {
            to[3] = to_byte(pixel[3]);
        }
    }
}

class scaler {
public:
    scaler(const stillimage_picture& picture, uint32_t width, uint32_t height)
        : rows_(picture), across_(picture.width, width), down_(picture.height, height),
          width_(width), source_width_(picture.width), bytes_(product_of(parts, source_width_)),
          source_(product_of(parts, source_width_)), sum_(product_of(parts, width_))
    {
        for (scaled_row& row : scaled_) {
            row.pixels.resize(sum_.size());
        }
    }

    void put(uint32_t y, uint32_t channels, uint8_t* to)
    {
        const axis_filter::tap_range& range = down_.range(y);
        const float* weights = down_.weights(range);
        std::fill(sum_.begin(), sum_.end(), 0.0F);
        for (uint32_t i = 0; i < range.count; ++i) {
            add_row(row(range.first + i), weights[i], sum_.size(), sum_.data());
        }
        put_pixels(sum_.data(), width_, channels, to);
    }

private:
    struct scaled_row {
        int64_t number = -1;
        std::vector<float> pixels;
    };

    // A row of the picture, scaled horizontally. The newest two are kept, since neighbours share
    // them.
    const float* row(uint32_t number)
    {
        scaled_row& kept = scaled_[number % scaled_.size()];
        if (kept.number != number) {
            kept.number = number;
            rows_.put(number, parts, bytes_.data());
            weight_by_alpha(bytes_.data(), source_width_, source_.data());
            scale_across(kept.pixels.data());
        }
        return kept.pixels.data();
    }

    void scale_across(float* to) const
    {
        for (uint32_t x = 0; x < width_; ++x, to += parts) {
            const axis_filter::tap_range& range = across_.range(x);
            const float* weights = across_.weights(range);
            const float* from = source_.data() + parts * size_t{range.first};
            float sum[parts] = {};
            for (uint32_t i = 0; i < range.count; ++i) {
                for (size_t c = 0; c < parts; ++c) {
                    sum[c] += from[parts * i + c] * weights[i];
                }
            }
            std::copy_n(sum, parts, to);
        }
    }

    rgb_rows rows_;
    axis_filter across_;
    axis_filter down_;
    size_t width_;
    size_t source_width_;
    std::vector<uint8_t> bytes_; // one row of the picture
    std::vector<float> source_;  // the same, weighted by alpha
    std::array<scaled_row, 2> scaled_;
    std::vector<float> sum_;
};

template <typename Rows>
void put_rows(Rows rows, uint32_t height, uint32_t channels, uint8_t* pixels, size_t stride)
{
    for (uint32_t y = 0; y < height; ++y) {
        rows.put(y, channels, pixels + y * stride);
    }
}

} // namespace

stillimage_result stillimage_picture_to_pixels(const stillimage_picture* picture, uint32_t format,
                                               uint32_t width, uint32_t height, uint8_t* pixels,
                                               size_t stride)
{
    return at_boundary([&] {
        const uint32_t channels = channels_of(format);
        if (!can_convert(picture) || pixels == nullptr || channels == 0 ||
            !is_extent(width, height) || !holds_pixels(stride, channels, width, height)) {
            return STILLIMAGE_ERROR_ARGUMENT;
        }
        stillimage_picture shown = *picture;
        if (format == STILLIMAGE_RGB24) {
            shown.plane[STILLIMAGE_A] = nullptr;
        }
        if (width == shown.width && height == shown.height) {
            put_rows(rgb_rows(shown), height, channels, pixels, stride);
        } else {
            put_rows(scaler(shown, width, height), height, channels, pixels, stride);
        }
        return STILLIMAGE_OK;
    });
}
