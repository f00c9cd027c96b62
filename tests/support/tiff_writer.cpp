// The file: header, strips, the directory, then values that do not fit into their directory
// entries.
#include "tests/support/tiff_writer.h"

#include <algorithm>

namespace {

constexpr uint16_t tag_strip_offsets = 273;
constexpr uint16_t tag_strip_sizes = 279;
constexpr uint32_t header_bytes = 8;
constexpr size_t entry_bytes = 12;

class byte_sink {
public:
    explicit byte_sink(bool big_endian) : big_endian_(big_endian) {}

    void put(uint32_t value, unsigned size)
    {
        for (unsigned i = 0; i < size; ++i) {
            const unsigned shift = 8 * (big_endian_ ? size - 1 - i : i);
            bytes.push_back(static_cast<unsigned char>(value >> shift));
        }
    }

    void pad_to_even()
    {
        if (bytes.size() % 2 != 0) {
            bytes.push_back(0);
        }
    }

    uint32_t position() const { return static_cast<uint32_t>(bytes.size()); }

    std::vector<unsigned char> bytes;

private:
    bool big_endian_;
};

unsigned size_of(tiff_value_type type)
{
    return type == TIFF_VALUE_BYTE ? 1 : type == TIFF_VALUE_SHORT ? 2 : 4;
}

void put_values(byte_sink& sink, const tiff_tag& tag)
{
    for (const uint32_t value : tag.values) {
        sink.put(value, size_of(tag.type));
    }
}

void put_directory(byte_sink& sink, const std::map<uint16_t, tiff_tag>& tags)
{
    sink.put(static_cast<uint32_t>(tags.size()), 2);
    auto behind = static_cast<uint32_t>(sink.position() + tags.size() * entry_bytes + 4);
    for (const auto& [number, tag] : tags) {
        const auto bytes = static_cast<uint32_t>(tag.values.size() * size_of(tag.type));
        sink.put(number, 2);
        sink.put(tag.type, 2);
        sink.put(tag.shared != 0 ? tag.shared : static_cast<uint32_t>(tag.values.size()), 4);
        if (tag.shared != 0) {
            sink.put(header_bytes, 4);
        } else if (bytes > 4) {
            sink.put(behind, 4);
            behind += bytes;
        } else {
            put_values(sink, tag);
            sink.put(0, 4 - bytes);
        }
    }
    sink.put(0, 4); // no further directory
    for (const auto& [number, tag] : tags) {
        if (tag.values.size() * size_of(tag.type) > 4) {
            put_values(sink, tag);
        }
    }
}

} // namespace

void tiff_spec::set_short(uint16_t tag, std::vector<uint32_t> values)
{
    tags[tag] = {TIFF_VALUE_SHORT, std::move(values)};
}

void tiff_spec::set_long(uint16_t tag, std::vector<uint32_t> values)
{
    tags[tag] = {TIFF_VALUE_LONG, std::move(values)};
}

tiff_spec plain_tiff(uint32_t width, uint32_t height, uint32_t samples, uint32_t photometric)
{
    tiff_spec spec;
    spec.set_long(256, {width});
    spec.set_long(257, {height});
    spec.set_short(258, std::vector<uint32_t>(samples, 8));
    spec.set_short(259, {1});
    spec.set_short(262, {photometric});
    spec.set_short(266, {1});
    spec.set_short(274, {1});
    spec.set_short(277, {samples});
    spec.set_long(278, {height});
    spec.set_short(284, {1});
    if (photometric == 5) {
        spec.set_short(332, {1});
    }
    if (photometric == 3) {
        spec.set_short(320, std::vector<uint32_t>(3 * 256, 0));
    }
    spec.strips.emplace_back(size_t{width} * height * samples);
    return spec;
}

std::vector<unsigned char> write_tiff(const tiff_spec& spec)
{
    byte_sink sink(spec.big_endian);
    sink.bytes.assign(2, spec.big_endian ? 'M' : 'I');
    sink.put(42, 2);
    sink.put(0, 4);
    std::vector<uint32_t> offsets;
    std::vector<uint32_t> sizes;
    for (const auto& strip : spec.strips) {
        offsets.push_back(sink.position());
        sizes.push_back(static_cast<uint32_t>(strip.size()));
        sink.bytes.insert(sink.bytes.end(), strip.begin(), strip.end());
    }
    sink.pad_to_even();
    auto tags = spec.tags;
    if (!offsets.empty()) {
        tags.try_emplace(tag_strip_offsets, tiff_tag{TIFF_VALUE_LONG, offsets});
        tags.try_emplace(tag_strip_sizes, tiff_tag{TIFF_VALUE_LONG, sizes});
    }
    byte_sink start(spec.big_endian);
    start.put(sink.position(), 4);
    std::copy(start.bytes.begin(), start.bytes.end(), sink.bytes.begin() + 4);
    put_directory(sink, tags);
    return sink.bytes;
}
