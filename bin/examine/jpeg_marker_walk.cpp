// A marker is 0xFF and a code; most are followed by a big-endian length that includes its own two
// bytes. The walk uses these lengths to jump from marker to marker and ignores what lies between.
// The entropy-coded data after a start of scan has no length, so it is searched for the next
// marker.
//
// Positions are offsets from the first byte. A position is at the end when at most two bytes are
// left.
#include "bin/examine/jpeg_marker_walk.h"

#include <cstddef>

namespace {

constexpr unsigned char start_of_image = 0xD8;
constexpr unsigned char end_of_image = 0xD9;
constexpr unsigned char start_of_scan = 0xDA;
constexpr unsigned convincing_chain = 5; // a chain of more markers needs no proper end

struct view {
    const unsigned char* bytes;
    size_t size;
};

bool at_end(size_t position, size_t size)
{
    return position + 2 >= size;
}

size_t after_scan_data(const view& file, size_t position)
{
    while (!at_end(position, file.size)) {
        if (file.bytes[position] != 0xFF) {
            ++position;
        } else if (file.bytes[position + 1] == 0) {
            position += 2;
        } else {
            break;
        }
    }
    return position;
}

// Bytes of the length that are out of view count as 0: the walk ends there in any case.
size_t length_at(const view& file, size_t position)
{
    const unsigned high = position < file.size ? file.bytes[position] : 0U;
    const unsigned low = position + 1 < file.size ? file.bytes[position + 1] : 0U;
    return high << 8 | low;
}

// Where the next marker after the one at `position` is expected; may lie past the end.
size_t next_marker(const view& file, size_t position)
{
    const size_t body = position + 2;
    switch (file.bytes[position + 1]) {
    case start_of_image:
    case end_of_image:
        return body;
    case start_of_scan:
        return after_scan_data(file, body);
    default:
        return body + length_at(file, body);
    }
}

} // namespace

bool jpeg_marker_chain_holds(const unsigned char* begin, const unsigned char* end)
{
    const view file = {begin, static_cast<size_t>(end - begin)};
    unsigned markers = 0;
    size_t position = 0;
    while (position + 2 <= file.size) {
        if (file.bytes[position] != 0xFF) {
            return markers > convincing_chain || at_end(position, file.size);
        }
        position = next_marker(file, position);
        ++markers;
    }
    return true;
}
