#include "tests/unit/framebuffer/mipmap_model.h"

#include <algorithm>
#include <cstddef>

#include "bin/examine/image_state.h"

namespace {

struct model_plane {
    uint64_t from;
    uint64_t from_stride;
    uint64_t to;
    uint64_t to_stride;
    int n;
};

void model_row(std::vector<unsigned char>& buffer, const model_plane& plane, int y, int height)
{
    const int row_above = std::max(y - 1, 0);
    const int row_below = std::min(y + 1, height - 1);
    const auto sample = [&](int row, int x) -> unsigned {
        const uint64_t at =
            plane.from + static_cast<uint64_t>(row) * plane.from_stride + static_cast<uint64_t>(x);
        return at < buffer.size() ? buffer[at] : 0;
    };
    const auto column = [&](int x) {
        return sample(row_above, x) + 2 * sample(y, x) + sample(row_below, x);
    };
    std::vector<unsigned char> row(plane.to_stride + 32, 0);
    row[0] = static_cast<unsigned char>(column(0) >> 2);
    for (int k = 1; k <= plane.n; ++k) {
        row[static_cast<size_t>(k)] = static_cast<unsigned char>(
            (column(2 * k - 1) + 2 * column(2 * k) + column(2 * k + 1) + 8) >> 4);
    }
    row[static_cast<size_t>(plane.n) + 1] =
        static_cast<unsigned char>(column(2 * plane.n + 1) >> 2);
    const uint64_t to = plane.to + static_cast<uint64_t>(y / 2) * plane.to_stride;
    std::copy_n(row.begin(), plane.to_stride, buffer.begin() + static_cast<std::ptrdiff_t>(to));
}

void model_plane_rows(std::vector<unsigned char>& buffer, const model_plane& plane, int height)
{
    if (plane.from_stride == 0 || plane.to_stride == 0) {
        return;
    }
    for (int y = 0; y < height; y += 2) {
        model_row(buffer, plane, y, height);
    }
}

} // namespace

void model_mipmap(std::vector<unsigned char>& buffer, const mipmap_image& d, const mipmap_image& s)
{
    const int chroma_width = d.width >> d.chroma_x_shift;
    model_plane_rows(buffer, {s.offset_Y, s.stride_Y, d.offset_Y, d.stride_Y, d.width}, s.height);
    model_plane_rows(buffer, {s.offset_U, s.stride_U, d.offset_U, d.stride_U, chroma_width},
                     s.height);
    model_plane_rows(buffer, {s.offset_V, s.stride_V, d.offset_V, d.stride_V, chroma_width},
                     s.height);
    model_plane_rows(buffer, {s.offset_A, s.stride_A, d.offset_A, d.stride_A, d.width}, s.height);
}

void model_all_mipmaps(std::vector<unsigned char>& buffer)
{
    for (uint64_t frame = 0; frame < image_decoded_frames; ++frame) {
        for (size_t i = 0; i < static_cast<size_t>(mipmaps); ++i) {
            if (frame == 0) {
                model_mipmap(buffer, mipmap[i], i == 0 ? main_image_mipmap : mipmap[i - 1]);
            } else {
                model_mipmap(buffer, secondary_image_mipmap[i][frame - 1],
                             i == 0 ? secondary_image_mipmap_main[frame - 1]
                                    : secondary_image_mipmap[i - 1][frame - 1]);
            }
        }
    }
}
