#include "tests/support/frame_sample.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "wire/scanline_format.h"

namespace format = scanline_format;

namespace {

uint64_t round_up(uint64_t size, uint64_t multiple)
{
    return (size + multiple - 1) / multiple * multiple;
}

void place_planes(frame_sample& sample, const sample_shape& shape)
{
    const uint64_t luma = round_up(sample.width, shape.stride_multiple);
    const uint64_t chroma = shape.chroma ? round_up(sample.width, 16) >> shape.x_shift : 0;
    sample.strides = {luma, chroma, chroma, shape.alpha ? luma : 0};
    uint64_t end = 0;
    for (size_t p = 0; p < STILLIMAGE_PLANES; ++p) {
        const uint64_t size = sample.strides[p] * (uint64_t{sample.height} + 2);
        const uint64_t offset = shape.overlapping ? 0 : end;
        sample.offsets[p] = sample.strides[p] != 0 ? offset : format::absent_plane;
        end = std::max(end, offset + size);
    }
    std::mt19937 random(1);
    sample.area.resize(end + format::full_size_area);
    for (uint64_t i = 0; i < end && !shape.overlapping; ++i) {
        sample.area[i] = static_cast<unsigned char>(random());
    }
    sample.message.scanline_offset = end;
    sample.message.scanline_size = format::full_size_area;
}

void put_planes(frame_sample& sample, const sample_shape& shape)
{
    for (size_t p = 0; p < STILLIMAGE_PLANES; ++p) {
        const bool chroma = p == STILLIMAGE_U || p == STILLIMAGE_V;
        const unsigned y_shift = chroma ? shape.y_shift : 0;
        sample.put(format::at_strides + 2 * p, 2, sample.strides[p]);
        sample.put(format::at_plane_markers + p, 1, format::plane_marker);
        sample.put(format::at_horizontal_masks + p, 1, chroma ? (1U << shape.x_shift) - 1 : 0);
        sample.put(format::at_vertical_masks + p, 1, (1U << y_shift) - 1);
        sample.put(format::at_plane_offsets + 4 * p, 4, sample.offsets[p]);
        sample.put(format::at_last_rows + 2 * p, 2, (uint64_t{sample.height} >> y_shift) - 1);
    }
}

} // namespace

frame_sample::frame_sample(const sample_shape& shape)
{
    const uint64_t step = UINT64_C(1) << shape.level;
    width = static_cast<uint32_t>((shape.full_width + step - 1) / step);
    height = static_cast<uint32_t>((shape.full_height + step - 1) / step);
    place_planes(*this, shape);
    message.reference = 1;
    message.buffer = 7;
    message.area_size = area.size();
    message.frame_number = 1;
    message.width = static_cast<int32_t>(shape.full_width);
    message.height = static_cast<int32_t>(shape.full_height);
    message.aspect_numerator = 16;
    message.aspect_denominator = 9;
    put(format::at_magic, 4, format::magic);
    put(format::at_area_size, 4, message.scanline_size);
    put(format::at_frame_number, 8, 1);
    put(format::at_full_width, 2, shape.full_width);
    put(format::at_full_height, 2, shape.full_height);
    put(format::at_aspect_numerator, 2, 16);
    put(format::at_aspect_denominator, 2, 9);
    put(format::at_constants, 4, 0x01010002);
    put(format::at_buffer_number, 2, 7);
    put(format::at_shortcut_constants, 3, 0x000201);
    put(format::at_source_width, 8, uint64_t{width} << 16U);
    put(format::at_source_height, 8, uint64_t{height} << 16U);
    put(format::at_destination_width, 8, uint64_t{shape.full_width} << 16U);
    put(format::at_destination_height, 8, uint64_t{shape.full_height} << 16U);
    put_planes(*this, shape);
    memcpy(record() + format::at_end_mark, format::end_mark, sizeof format::end_mark);
}

void frame_sample::put(size_t at, size_t size, uint64_t value)
{
    for (size_t i = 0; i < size; ++i) {
        record()[at + i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

uint64_t frame_sample::get(size_t at, size_t size) const
{
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value |= static_cast<uint64_t>(record()[at + i]) << (8 * i);
    }
    return value;
}
