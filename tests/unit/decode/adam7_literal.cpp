#include "tests/unit/decode/adam7_literal.h"

#include <algorithm>

namespace {

struct block {
    uint32_t width, height;
};

constexpr block blocks[7] = {{8, 8}, {4, 8}, {4, 4}, {2, 4}, {2, 2}, {1, 2}, {1, 1}};

uint32_t up_to_16(uint32_t size)
{
    return (size + 15) / 16 * 16;
}

} // namespace

adam7_literal::adam7_literal(const png_samples& picture, unsigned char before)
    : picture_(picture), row_(size_t{picture.width} * picture.channels),
      stride_(up_to_16(picture.width)), buffer_height_(up_to_16(picture.height)),
      alpha_(picture.colour_type == 4 || picture.colour_type == 6)
{
    const bool colour = picture.colour_type != 0 && picture.colour_type != 4;
    const std::array<bool, 4> drawn = {true, colour, colour, alpha_};
    for (size_t i = 0; i < 4; ++i) {
        planes_[i].assign(drawn[i] ? size_t{stride_} * buffer_height_ : 0, before);
    }
    for (const png_pass_samples& pass : picture.passes) {
        waiting_.insert(waiting_.end(), pass.delivered.begin(), pass.delivered.end());
    }
    size_t rows = 0;
    for (const png_pass_samples& pass : picture.passes) {
        rows += pass.columns != 0 ? pass.rows : 0;
    }
    if (!picture.complete && waiting_.size() == rows) {
        waiting_.pop_back(); // the call for the last row does not return
    }
    go_to_next_row();
}

uint64_t adam7_literal::rows_in_all() const
{
    uint64_t rows = 0;
    for (const png_pass_samples& pass : picture_.passes) {
        for (uint32_t y = pass.first_row; y < picture_.height; y += pass.row_step) {
            ++rows;
        }
    }
    return rows;
}

// The alpha plane is tested once, after the first pass.
void adam7_literal::end_pass()
{
    if (pass_ == 0 && alpha_) {
        bool opaque = true;
        for (uint32_t y = 0; y < picture_.height; ++y) {
            for (uint32_t x = 0; x < picture_.width; ++x) {
                opaque = opaque && planes_[3][size_t{y} * stride_ + x] > 253;
            }
        }
        alpha_ = !opaque;
    }
    ++pass_;
    row_of_pass_ = 0;
}

void adam7_literal::go_to_next_row()
{
    while (pass_ < 7) {
        const png_pass_samples& pass = picture_.passes[static_cast<size_t>(pass_)];
        if (pass.first_row + row_of_pass_ * pass.row_step < picture_.height) {
            return;
        }
        end_pass();
    }
}

void adam7_literal::leave_pass()
{
    end_pass();
    go_to_next_row();
}

void adam7_literal::make_band_black(uint32_t row)
{
    static constexpr unsigned char black[4] = {16, 128, 128, 0};
    for (size_t i = 0; i < 4; ++i) {
        if (!planes_[i].empty() && (i != 3 || alpha_)) {
            std::fill_n(planes_[i].begin() + std::ptrdiff_t{row} * stride_, size_t{8} * stride_,
                        black[i]);
        }
    }
}

bool adam7_literal::take_row()
{
    if (next_waiting_ == waiting_.size()) {
        return false;
    }
    std::ranges::copy(waiting_[next_waiting_++], row_.begin());
    return true;
}

std::array<int, 4> adam7_literal::converted(const unsigned char* pixel) const
{
    if (picture_.colour_type == 0 || picture_.colour_type == 4) {
        return {pixel[0] * 219 / 255 + 16, 0, 0, picture_.colour_type == 4 ? pixel[1] : 0};
    }
    int r = pixel[0];
    int g = r;
    int b = r;
    if (picture_.colour_type == 3) {
        if (size_t{pixel[0]} >= picture_.palette.size()) {
            return {16, 128, 128, 0};
        }
        r = picture_.palette[pixel[0]][0];
        g = picture_.palette[pixel[0]][1];
        b = picture_.palette[pixel[0]][2];
    } else {
        g = pixel[1];
        b = pixel[2];
    }
    return {(66 * r + 129 * g + 25 * b + 4096) >> 8, (-38 * r - 74 * g + 112 * b + 32768) >> 8,
            (112 * r - 94 * g - 18 * b + 32768) >> 8, picture_.colour_type == 6 ? pixel[3] : 0};
}

void adam7_literal::paint(uint32_t x, uint32_t y, const unsigned char* pixel)
{
    const std::array<int, 4> samples = converted(pixel);
    const block size = blocks[pass_];
    for (size_t i = 0; i < 4; ++i) {
        if (planes_[i].empty() || (i == 3 && !alpha_)) {
            continue;
        }
        for (uint32_t row = y; row < y + size.height && row < buffer_height_; ++row) {
            for (uint32_t column = x; column < x + size.width; ++column) {
                planes_[i].at(size_t{row} * stride_ + column) =
                    static_cast<unsigned char>(samples[i]);
            }
        }
    }
}

bool adam7_literal::draw_row()
{
    if (pass_ == 7) {
        return false;
    }
    const png_pass_samples& pass = picture_.passes[static_cast<size_t>(pass_)];
    const uint32_t y = pass.first_row + row_of_pass_ * pass.row_step;
    if (pass_ == 0) {
        make_band_black(y);
    }
    if (pass.columns != 0 && !take_row()) {
        gave_up_ = true;
        pass_ = 7;
        return false;
    }
    for (uint32_t i = 0; i < pass.columns; ++i) {
        paint(pass.first_column + i * pass.column_step, y, &row_[size_t{i} * picture_.channels]);
    }
    ++rows_drawn_;
    ++row_of_pass_;
    go_to_next_row();
    return true;
}
