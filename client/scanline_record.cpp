#include "client/scanline_record.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "wire/scanline_format.h"

namespace {

namespace format = scanline_format;

uint64_t load(const unsigned char* bytes, size_t at, size_t count)
{
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i) {
        value |= static_cast<uint64_t>(bytes[at + i]) << (8 * i);
    }
    return value;
}

constexpr int max_levels = 16;
constexpr int32_t max_side = 0xFFFF;     // of a picture, in pixels
constexpr uint64_t modulus = 0x10000;    // of the strides in 16-bit fields
constexpr uint32_t full_scale = 0x10000; // 1.0 as a 16.16 number

uint32_t halved(uint32_t size, int times)
{
    return static_cast<uint32_t>((static_cast<uint64_t>(size) + (UINT64_C(1) << times) - 1) >>
                                 times);
}

struct extent {
    uint32_t width;
    uint32_t height;
    bool operator==(const extent&) const = default;
};

// How many times the full size was halved to give the record's size. Empty if no level matches.
std::optional<int> find_level(const unsigned char* copy, extent full)
{
    const extent wanted = {static_cast<uint32_t>(load(copy, format::at_source_width, 4) >> 16),
                           static_cast<uint32_t>(load(copy, format::at_source_height, 4) >> 16)};
    for (int level = 0; level <= max_levels; ++level) {
        if (wanted == extent{halved(full.width, level), halved(full.height, level)}) {
            return level;
        }
    }
    return std::nullopt;
}

// log2 of the subsampling for a sample mask.
std::optional<uint8_t> shift_of(uint64_t mask)
{
    switch (mask) {
    case 0:
        return uint8_t{0};
    case 1:
        return uint8_t{1};
    case 3:
        return uint8_t{2};
    default:
        return std::nullopt;
    }
}

// U and V need equal masks; those of Y and A have to be 0.
std::optional<uint8_t> read_shift(const unsigned char* copy, size_t at)
{
    if (copy[at + STILLIMAGE_Y] != 0 || copy[at + STILLIMAGE_A] != 0 ||
        copy[at + STILLIMAGE_U] != copy[at + STILLIMAGE_V]) {
        return std::nullopt;
    }
    return shift_of(copy[at + STILLIMAGE_U]);
}

constexpr uint64_t max_padding = 15; // bytes after a row, which can push its stride beyond 16 bits

// Reconstructs a stride of which only the lower 16 bits are stored: the smallest that holds a row.
// Where row and padding fit into 16 bits nothing is lost, and the stored stride is returned.
uint64_t restore_stride(uint64_t stored, uint64_t row)
{
    if (stored >= row || row + max_padding < modulus) {
        return stored;
    }
    return stored + (row - stored + modulus - 1) / modulus * modulus;
}

class record_reader {
public:
    record_reader(const unsigned char* record, const comm_protocol::frame& said,
                  const unsigned char* shared, stillimage_picture* result)
        : copy(record), message(said), area(shared), picture(result)
    {
    }

    // Returns null, or the reason why the record is invalid.
    const char* read()
    {
        if (const char* reason = read_head()) {
            return reason;
        }
        for (int plane = 0; plane < STILLIMAGE_PLANES; ++plane) {
            if (const char* reason = read_plane(plane)) {
                return reason;
            }
        }
        if (picture->plane[STILLIMAGE_Y] == nullptr) {
            return "the picture has no Y plane";
        }
        const bool has_u = picture->plane[STILLIMAGE_U] != nullptr;
        const bool has_v = picture->plane[STILLIMAGE_V] != nullptr;
        return has_u != has_v ? "it has one chroma plane only" : nullptr;
    }

private:
    const char* read_head()
    {
        if (const char* reason = refuse_size(message)) {
            return reason;
        }
        if (load(copy, format::at_buffer_number, 2) != message.buffer % modulus) {
            return "it is about another buffer";
        }
        if (load(copy, format::at_frame_number, 8) != message.frame_number) {
            return "it is about another frame";
        }
        picture->full_width = static_cast<uint32_t>(message.width);
        picture->full_height = static_cast<uint32_t>(message.height);
        if (load(copy, format::at_full_width, 2) != picture->full_width ||
            load(copy, format::at_full_height, 2) != picture->full_height) {
            return "it is about a picture of another size";
        }
        return read_geometry();
    }

    const char* read_geometry()
    {
        const auto level = find_level(copy, {picture->full_width, picture->full_height});
        const auto x_shift = read_shift(copy, format::at_horizontal_masks);
        const auto y_shift = read_shift(copy, format::at_vertical_masks);
        if (!level) {
            return "its size is not that of one level of the picture";
        }
        if (!x_shift || !y_shift) {
            return "its chroma subsampling is unknown";
        }
        reduced = *level > 0;
        picture->width = halved(picture->full_width, *level);
        picture->height = halved(picture->full_height, *level);
        picture->scale_x = picture->scale_y = full_scale >> *level;
        picture->chroma_x_shift = *x_shift;
        picture->chroma_y_shift = *y_shift;
        return nullptr;
    }

    const char* read_plane(int plane)
    {
        const bool chroma = plane == STILLIMAGE_U || plane == STILLIMAGE_V;
        const auto index = static_cast<size_t>(plane);
        const uint64_t offset = load(copy, format::at_plane_offsets + 4 * index, 4);
        if (offset == format::absent_plane) {
            return nullptr;
        }
        const uint8_t x_shift = chroma ? picture->chroma_x_shift : uint8_t{0};
        const uint8_t y_shift = chroma ? picture->chroma_y_shift : uint8_t{0};
        const uint64_t row = std::max(picture->width >> x_shift, 1U);
        const uint64_t stride = restore_stride(load(copy, format::at_strides + 2 * index, 2), row);
        if (stride == 0) {
            return nullptr; // absent, whatever its offset is
        }
        if (stride < row) {
            return "a row is longer than its stride";
        }
        const uint64_t width = std::min(samples_along(picture->width, x_shift), stride);
        const uint64_t rows = samples_along(picture->height, y_shift);
        return place_plane(plane, offset, stride, width, rows);
    }

    // Decoders write every chroma sample of the full size. A reduced level has only those of its
    // record; samples beyond these are not part of the picture.
    uint64_t samples_along(uint32_t size, uint8_t shift) const
    {
        return reduced ? std::max(size >> shift, 1U) : halved(size, shift);
    }

    const char* place_plane(int plane, uint64_t offset, uint64_t stride, uint64_t width,
                            uint64_t rows)
    {
        // The last row counts with its padding, so that readers may copy whole rows.
        const uint64_t size = stride * rows;
        if (stride > UINT32_MAX || message.base_offset > message.area_size ||
            offset > message.area_size - message.base_offset ||
            size > message.area_size - message.base_offset - offset) {
            return "a plane does not lie inside the shared area";
        }
        picture->plane[plane] = area + message.base_offset + offset;
        picture->stride[plane] = static_cast<uint32_t>(stride);
        picture->plane_width[plane] = static_cast<uint32_t>(width);
        picture->plane_height[plane] = static_cast<uint32_t>(rows);
        return nullptr;
    }

    const unsigned char* copy;
    const comm_protocol::frame& message;
    const unsigned char* area;
    stillimage_picture* picture;
    bool reduced = false;
};

void describe_message(const comm_protocol::frame& message, stillimage_picture* picture)
{
    picture->range = STILLIMAGE_RANGE_LIMITED;
    picture->matrix = STILLIMAGE_MATRIX_BT601;
    picture->frame_number = message.frame_number;
    picture->provisional = (message.flags & comm_protocol::frame_provisional) != 0 ? 1 : 0;
    const bool known = message.aspect_numerator > 0 && message.aspect_denominator > 0;
    picture->aspect_numerator = known ? message.aspect_numerator : picture->full_width;
    picture->aspect_denominator = known ? message.aspect_denominator : picture->full_height;
}

} // namespace

const char* refuse_size(const comm_protocol::frame& message)
{
    if (message.width < 1 || message.height < 1) {
        return "the picture has no size";
    }
    if (message.width > max_side || message.height > max_side) {
        return "a side of the picture has more than 65535 pixels";
    }
    return nullptr;
}

bool record_is_complete(const unsigned char* copy, size_t size)
{
    return size >= format::record_size && load(copy, format::at_magic, 4) == format::magic &&
           memcmp(copy + format::at_end_mark, format::end_mark, sizeof format::end_mark) == 0;
}

bool describe_picture(const unsigned char* copy, size_t size, const comm_protocol::frame& message,
                      const unsigned char* area, stillimage_picture* picture, std::string* reason)
{
    *picture = {};
    if (!record_is_complete(copy, size)) {
        *reason = "its marks are missing";
        return false;
    }
    if (load(copy, format::at_area_size, 4) != size) {
        *reason = "its size is not the one that the worker named";
        return false;
    }
    if (const char* why = record_reader(copy, message, area, picture).read()) {
        *reason = why;
        return false;
    }
    describe_message(message, picture);
    return true;
}
