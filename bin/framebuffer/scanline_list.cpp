// The record is built separately and then copied. The magic's first byte is cleared before anything
// else changes and set last, so a reader never sees a partial record with a valid magic.
#include "bin/framebuffer/scanline_list.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "bin/examine/image_state.h"
#include "bin/invariant.h"
#include "platform/settings.h"
#include "wire/scanline_format.h"

using namespace scanline_format; // every constant of this file is an offset of the record

namespace {

using record_bytes = std::array<unsigned char, record_size>;

template <typename number>
void put(unsigned char* record, size_t at, number value)
{
    for (size_t i = 0; i < sizeof value; ++i) {
        record[at + i] = static_cast<unsigned char>(static_cast<uint64_t>(value) >> (8 * i));
    }
}

void put_16(unsigned char* record, size_t at, uint64_t value)
{
    put(record, at, static_cast<uint16_t>(value));
}

// 16.16 in 32 bits, sign-extended. Kept as is: from 32768 pixels on the field is negative.
uint64_t fixed_point(int pixels)
{
    const uint32_t fixed = static_cast<uint32_t>(pixels) << 16;
    return static_cast<uint64_t>(static_cast<int32_t>(fixed));
}

void put_header(unsigned char* record, const mipmap_image& picture, uint64_t frame_number)
{
    const bool ratio_known = vexa_aspect_ratio.numerator >= 1 && vexa_aspect_ratio.denominator >= 1;
    put(record, at_magic, magic);
    put(record, at_area_size, static_cast<uint32_t>(picture.scanline_data_size));
    put(record, at_frame_number, frame_number);
    put_16(record, at_full_width, static_cast<uint64_t>(image_width));
    put_16(record, at_full_height, static_cast<uint64_t>(image_height));
    put_16(record, at_aspect_numerator,
           static_cast<uint64_t>(ratio_known ? vexa_aspect_ratio.numerator : image_width));
    put_16(record, at_aspect_denominator,
           static_cast<uint64_t>(ratio_known ? vexa_aspect_ratio.denominator : image_height));
    put(record, at_constants, uint32_t{0x01010002});
}

void put_placement(unsigned char* record, const mipmap_image& picture)
{
    put(record, at_source_width, fixed_point(picture.width));
    put(record, at_source_height, fixed_point(picture.height));
    put(record, at_destination_width, fixed_point(image_width));
    put(record, at_destination_height, fixed_point(image_height));
}

void put_plane(unsigned char* record, size_t plane, const plane_place& place, int height)
{
    const bool is_absent = plane != 0 && place.stride == 0;
    const uint64_t offset = is_absent ? scanline_format::absent_plane : place.offset;
    put_16(record, at_strides + 2 * plane, place.stride);
    put(record, at_plane_markers + plane, plane_marker);
    put(record, at_horizontal_masks + plane, static_cast<uint8_t>((1U << place.x_shift) - 1));
    put(record, at_vertical_masks + plane, static_cast<uint8_t>((1U << place.y_shift) - 1));
    put(record, at_plane_offsets + 4 * plane, static_cast<uint32_t>(offset));
    put_16(record, at_last_rows + 2 * plane, static_cast<uint64_t>((height >> place.y_shift) - 1));
}

void put_shortcut(unsigned char* record, const mipmap_image& picture)
{
    const auto planes = planes_of(picture);
    for (size_t plane = 0; plane < planes.size(); ++plane) {
        put_plane(record, plane, planes[plane], picture.height);
    }
    put(record, at_shortcut_constants, uint8_t{1});
    put(record, at_shortcut_constants + 1, record[at_constants]);
    put(record, at_shortcut_constants + 2, record[at_constants + 1]);
    put_placement(record, picture);
}

// A part is only begun when the area has room for it.
record_bytes build_record(const mipmap_image& picture, uint64_t frame_number)
{
    const uint64_t fence = picture.scanline_data_size;
    record_bytes record = {};
    INVARIANT(header_size <= fence, "w <= fence");
    put_header(record.data(), picture, frame_number);
    INVARIANT(at_shortcut <= fence, "w <= fence");
    put_16(record.data(), at_buffer_number, image_cnb_buffer);
    INVARIANT(at_end_mark <= fence, "w <= fence");
    put_shortcut(record.data(), picture);
    INVARIANT(record_size <= fence, "w <= fence");
    memcpy(record.data() + at_end_mark, end_mark, sizeof end_mark);
    return record;
}

// The flag is a single byte, because an area may begin at any address and only byte accesses are
// always atomic.
void publish(unsigned char* area, const mipmap_image& picture, const record_bytes& record)
{
    std::atomic_ref<unsigned char> first(area[0]);
    first.store(0, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    memcpy(area + 1, record.data() + 1, record_size - 1);
    memset(area + record_size, 0, picture.scanline_data_size - record_size);
    first.store(record[0], std::memory_order_release);
}

} // namespace

int setup_scanline_list(mipmap_image* picture, unsigned long long frame_number)
{
    unsigned char* area = vexa_global_access_cache_quickfetch(
        vexa_acc_cache, image_cnb_buffer, picture->scanline_data_offset,
        picture->scanline_data_size, access_write);
    if (area == nullptr) {
        fprintf(stderr, "Memory mapping scanline area failed, %s\n", strerror(errno));
        return -1;
    }
    publish(area, *picture, build_record(*picture, frame_number));
    return 0;
}

void try_scanline_list(mipmap_image* picture, unsigned long long frame_number)
{
    if (setup_scanline_list(picture, frame_number) != 0) {
        fputs("Error: Unable to set up scanline list\n", stderr);
    }
}
