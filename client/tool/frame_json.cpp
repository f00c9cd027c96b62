#include "client/tool/frame_json.h"

#include <json11.hpp>

#include "wire/scanline_format.h"

namespace {

namespace format = scanline_format;
using json11::Json;

// JSON numbers are exact up to 2^53, which is above any offset in a buffer.
Json number(uint64_t value)
{
    return Json(static_cast<double>(value));
}

class record_fields {
public:
    explicit record_fields(const uint8_t* record) : bytes(record) {}

    Json one(size_t at, size_t size) const { return number(load(at, size)); }

    Json several(size_t at, size_t size, size_t count) const
    {
        Json::array values;
        for (size_t i = 0; i < count; ++i) {
            values.push_back(number(load(at + i * size, size)));
        }
        return values;
    }

    std::string text(size_t at, size_t size) const
    {
        return {reinterpret_cast<const char*>(bytes + at), size};
    }

private:
    uint64_t load(size_t at, size_t size) const
    {
        uint64_t value = 0;
        for (size_t i = 0; i < size; ++i) {
            value |= static_cast<uint64_t>(bytes[at + i]) << (8 * i);
        }
        return value;
    }

    const uint8_t* bytes;
};

Json rectangle(const record_fields& record, size_t x, size_t y, size_t width, size_t height)
{
    return Json::object{{"x", record.one(x, 8)},
                        {"y", record.one(y, 8)},
                        {"width", record.one(width, 8)},
                        {"height", record.one(height, 8)}};
}

Json scanline_json(const uint8_t* bytes)
{
    const record_fields record(bytes);
    return Json::object{
        {"magic", record.one(format::at_magic, 4)},
        {"area_size", record.one(format::at_area_size, 4)},
        {"frame_number", record.one(format::at_frame_number, 8)},
        {"full_width", record.one(format::at_full_width, 2)},
        {"full_height", record.one(format::at_full_height, 2)},
        {"aspect", record.several(format::at_aspect_numerator, 2, 2)},
        {"constants", record.several(format::at_constants, 1, 4)},
        {"buffer_number", record.one(format::at_buffer_number, 2)},
        {"strides", record.several(format::at_strides, 2, 4)},
        {"plane_markers", record.several(format::at_plane_markers, 1, 4)},
        {"shortcut_constants", record.several(format::at_shortcut_constants, 1, 3)},
        {"source", rectangle(record, format::at_source_x, format::at_source_y,
                             format::at_source_width, format::at_source_height)},
        {"destination", rectangle(record, format::at_destination_x, format::at_destination_y,
                                  format::at_destination_width, format::at_destination_height)},
        {"horizontal_masks", record.several(format::at_horizontal_masks, 1, 4)},
        {"vertical_masks", record.several(format::at_vertical_masks, 1, 4)},
        {"plane_offsets", record.several(format::at_plane_offsets, 4, 4)},
        {"last_rows", record.several(format::at_last_rows, 2, 4)},
        {"end_mark", record.text(format::at_end_mark, sizeof format::end_mark)},
    };
}

} // namespace

std::string frame_json(const stillimage_descriptor_info& descriptor)
{
    const Json json = Json::object{
        {"buffer", number(descriptor.buffer)},
        {"area_size", number(descriptor.area_size)},
        {"scanline_offset", number(descriptor.scanline_offset)},
        {"scanline_size", number(descriptor.scanline_size)},
        {"frame_number", number(descriptor.frame_number)},
        {"width", descriptor.width},
        {"height", descriptor.height},
        {"aspect", Json::array{static_cast<double>(descriptor.aspect_numerator),
                               static_cast<double>(descriptor.aspect_denominator)}},
        {"provisional", descriptor.provisional != 0},
        {"scanline", scanline_json(descriptor.scanline)},
    };
    return json.dump() + "\n";
}
