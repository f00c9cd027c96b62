// A picture of any size is converted to RGB a few rows at a time, so that only these are in memory.
// A drawn row is the sum of the picture's rows that it covers, with colour weighted by alpha.
#include "client/tool/sheet_canvas.h"

#include <algorithm>
#include <vector>

namespace {

constexpr uint32_t band_height = 16; // a multiple of every chroma subsampling

// Rows of a picture as RGB or RGBA, from the top down.
class picture_rows {
public:
    explicit picture_rows(const stillimage_picture& picture) : picture_(picture) {}

    const uint8_t* row(uint32_t y)
    {
        const uint32_t top = y / band_height * band_height;
        if (band_.height == 0 || top != top_) {
            band_ = to_rgb(band_at(top), true);
            top_ = top;
        }
        return band_.samples.data() + size_t{y - top} * band_.width * band_.channels;
    }

    uint32_t channels() const { return band_.channels; } // valid after the first row()

private:
    stillimage_picture band_at(uint32_t top) const
    {
        stillimage_picture band = picture_;
        band.height = std::min(band_height, picture_.height - top);
        for (int i = 0; i < STILLIMAGE_PLANES; ++i) {
            const bool chroma = i == STILLIMAGE_U || i == STILLIMAGE_V;
            // With an odd height the last chroma row may be missing; the one above replaces it.
            if (band.plane[i] != nullptr) {
                const uint32_t wanted = top >> (chroma ? picture_.chroma_y_shift : 0);
                const uint32_t first = std::min(wanted, picture_.plane_height[i] - 1);
                band.plane[i] += uint64_t{first} * picture_.stride[i];
                band.plane_height[i] -= first;
            }
        }
        return band;
    }

    const stillimage_picture& picture_;
    rgb_picture band_ = {0, 0, 3, {}};
    uint32_t top_ = 0;
};

struct samples_range {
    uint32_t first;
    uint32_t end;
};

// Which of `from` samples one of `to` drawn pixels covers: at least one.
samples_range samples_under(uint32_t pixel, uint32_t from, uint32_t to)
{
    const auto first = static_cast<uint32_t>(uint64_t{pixel} * from / to);
    const auto end = static_cast<uint32_t>((uint64_t{pixel} + 1) * from / to);
    return {first, std::max(end, first + 1)};
}

// Colour is weighted by alpha, which is 255 for a picture without alpha.
struct pixel_sum {
    uint64_t colour[3] = {};
    uint64_t alpha = 0;
    uint64_t samples = 0;
};

void add_row(const uint8_t* row, uint32_t channels, uint32_t width, std::vector<pixel_sum>& sums)
{
    const auto drawn = static_cast<uint32_t>(sums.size());
    for (uint32_t x = 0; x < drawn; ++x) {
        const samples_range range = samples_under(x, width, drawn);
        pixel_sum& sum = sums[x];
        for (uint32_t i = range.first; i < range.end; ++i) {
            const uint8_t* sample = row + size_t{i} * channels;
            const uint32_t alpha = channels == 4 ? sample[3] : 255;
            for (int c = 0; c < 3; ++c) {
                sum.colour[c] += uint64_t{sample[c]} * alpha;
            }
            sum.alpha += alpha;
        }
        sum.samples += range.end - range.first;
    }
}

uint8_t over(uint64_t colour, const pixel_sum& sum, grey behind)
{
    const uint64_t whole = sum.samples * 255;
    return static_cast<uint8_t>((colour + behind * (whole - sum.alpha) + whole / 2) / whole);
}

} // namespace

grey checkerboard_at(uint32_t x, uint32_t y)
{
    constexpr uint32_t square = 8;
    return (x / square + y / square) % 2 == 0 ? 0xCC : 0x99;
}

sheet_canvas::sheet_canvas(sheet_extent size, grey background)
    : pixels_{size.width, size.height, 3,
              std::vector<uint8_t>(size_t{size.width} * size.height * 3, background)}
{
}

void sheet_canvas::set(uint32_t x, uint32_t y, const uint8_t* rgb)
{
    if (x < pixels_.width && y < pixels_.height) {
        std::copy_n(rgb, 3, pixels_.samples.data() + (size_t{y} * pixels_.width + x) * 3);
    }
}

void sheet_canvas::fill(sheet_point at, sheet_extent size, grey shade)
{
    const uint8_t rgb[3] = {shade, shade, shade};
    for (uint32_t y = 0; y < size.height; ++y) {
        for (uint32_t x = 0; x < size.width; ++x) {
            set(at.x + x, at.y + y, rgb);
        }
    }
}

void sheet_canvas::draw_glyph(sheet_point at, uint32_t scale, char character, grey shade)
{
    const glyph_rows& rows = glyph_of(character);
    for (uint32_t y = 0; y < glyph_height; ++y) {
        for (uint32_t x = 0; x < glyph_width; ++x) {
            if ((rows[y] >> (glyph_width - 1 - x) & 1) != 0) {
                fill({at.x + x * scale, at.y + y * scale}, {scale, scale}, shade);
            }
        }
    }
}

void sheet_canvas::draw_text(sheet_point at, uint32_t scale, const std::string& lines, grey shade)
{
    sheet_point next = at;
    for (const char c : lines) {
        if (c == '\n') {
            next = {at.x, next.y + line_height * scale};
        } else {
            draw_glyph(next, scale, c, shade);
            next.x += (glyph_width + 1) * scale;
        }
    }
}

void sheet_canvas::draw_frame(sheet_point at, sheet_extent size, grey shade)
{
    const sheet_point corner = {at.x - 1, at.y - 1};
    fill(corner, {size.width + 2, 1}, shade);
    fill({corner.x, at.y + size.height}, {size.width + 2, 1}, shade);
    fill(corner, {1, size.height + 2}, shade);
    fill({at.x + size.width, corner.y}, {1, size.height + 2}, shade);
}

void sheet_canvas::draw_picture(sheet_point at, sheet_extent size,
                                const stillimage_picture& picture)
{
    picture_rows rows(picture);
    for (uint32_t y = 0; y < size.height; ++y) {
        std::vector<pixel_sum> sums(size.width);
        const samples_range range = samples_under(y, picture.height, size.height);
        for (uint32_t i = range.first; i < range.end; ++i) {
            const uint8_t* row = rows.row(i);
            add_row(row, rows.channels(), picture.width, sums);
        }
        for (uint32_t x = 0; x < size.width; ++x) {
            const grey behind = checkerboard_at(x, y);
            const uint8_t rgb[3] = {over(sums[x].colour[0], sums[x], behind),
                                    over(sums[x].colour[1], sums[x], behind),
                                    over(sums[x].colour[2], sums[x], behind)};
            set(at.x + x, at.y + y, rgb);
        }
    }
}
