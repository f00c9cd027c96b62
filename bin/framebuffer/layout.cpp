#include "bin/framebuffer/layout.h"

#include <cstdio>

#include "bin/examine/image_state.h"
#include "bin/invariant.h"
#include "wire/scanline_format.h"

uint64_t image_stride_Y = 0, image_stride_U = 0, image_stride_V = 0, image_stride_A = 0;
uint64_t image_offset_Y = 0, image_offset_U = 0, image_offset_V = 0, image_offset_A = 0;
uint64_t image_scanline_data_buffer_offset = 0;
uint64_t image_scanline_data_buffer_size = 0;
uint64_t image_decoded_unit_size = 0;
uint64_t image_decoded_size = 0;
int mipmaps = 0;

mipmap_image mipmap[max_mipmaps] = {};
mipmap_image main_image_mipmap = {};
std::vector<mipmap_image> secondary_image_mipmap_main;
std::vector<mipmap_image> secondary_image_mipmap[max_mipmaps];

cnb_allocation image_cnb_alloc;

namespace {

constexpr uint64_t full_stride_multiple = 16;
constexpr uint64_t level_stride_multiple = 8;
constexpr uint64_t level_gap = 16;       // bytes between a level's last plane and its scanline data
constexpr int min_side = 32;             // no level when both sides would be smaller
constexpr uint32_t full_scale = 0x10000; // 1.0 in 16.16

uint64_t round_up(uint64_t value, uint64_t multiple)
{
    return (value + multiple - 1) / multiple * multiple;
}

uint64_t halved_rounding_up(int side, unsigned times)
{
    return (static_cast<uint64_t>(side) + (UINT64_C(1) << times) - 1) >> times;
}

uint64_t luma_bytes(uint64_t stride, int rows)
{
    return stride * static_cast<uint64_t>(rows);
}

uint64_t chroma_bytes(uint64_t stride, int luma_rows)
{
    return stride * static_cast<uint64_t>(luma_rows >> image_chroma_y_shift);
}

bool level_wanted(unsigned shift)
{
    return (image_width >> shift) >= min_side || (image_height >> shift) >= min_side;
}

// A level without its offsets.
mipmap_image level_shape(unsigned shift)
{
    mipmap_image level = {};
    level.width = static_cast<int32_t>(halved_rounding_up(image_width, shift));
    level.height = static_cast<int32_t>(halved_rounding_up(image_height, shift));
    // As many rows as the full size, whatever the level's own height, and two more: the pyramid
    // also writes its chroma planes over the luma's number of rows.
    level.buffer_height = image_buffer_height + 2;
    const auto width = static_cast<uint64_t>(level.width);
    const uint64_t luma_stride = round_up(width, level_stride_multiple);
    const uint64_t chroma_stride = round_up(width >> image_chroma_x_shift, level_stride_multiple);
    level.stride_Y = image_stride_Y != 0 ? luma_stride : 0;
    level.stride_U = image_stride_U != 0 ? chroma_stride : 0;
    level.stride_V = image_stride_V != 0 ? chroma_stride : 0;
    level.stride_A = image_stride_A != 0 ? luma_stride : 0;
    level.scanline_data_size = scanline_format::level_area;
    level.chroma_x_shift = image_chroma_x_shift;
    level.chroma_y_shift = image_chroma_y_shift;
    level.scale_x = level.scale_y = full_scale >> shift;
    return level;
}

// Kept as is: the budget counts the full-size rows, for chroma too, without the level's two more.
bool within_budget(const mipmap_image& level, uint64_t size)
{
    const uint64_t row = level.stride_Y + level.stride_U + level.stride_V + level.stride_A;
    return size + luma_bytes(row, image_buffer_height) + level.scanline_data_size <= unit_budget;
}

// Places the level at `size` and returns the new size.
uint64_t place_level(mipmap_image& level, uint64_t size)
{
    level.offset_Y = size;
    size += luma_bytes(level.stride_Y, level.buffer_height);
    level.offset_U = level.offset_V = level.offset_A = absent_plane;
    if (image_is_monochrome == 0) {
        level.offset_U = size;
        level.offset_V = level.offset_U + chroma_bytes(level.stride_U, level.buffer_height);
        size = level.offset_V + chroma_bytes(level.stride_V, level.buffer_height);
    }
    if (image_has_alpha_channel != 0) {
        level.offset_A = size;
        size += luma_bytes(level.stride_A, level.buffer_height);
    }
    level.scanline_data_offset = size + level_gap;
    return level.scanline_data_offset + level.scanline_data_size;
}

void print_full_size(const char* title)
{
    fprintf(stderr, "%s\n", title);
    fprintf(stderr, "    Total: %lu\n", image_decoded_size);
    fprintf(stderr, "    Y: ofs=%lu stride=%lu\n", image_offset_Y, image_stride_Y);
    fprintf(stderr, "    U: ofs=%lu stride=%lu\n", image_offset_U, image_stride_U);
    fprintf(stderr, "    V: ofs=%lu stride=%lu\n", image_offset_V, image_stride_V);
    fprintf(stderr, "    A: ofs=%lu stride=%lu\n", image_offset_A, image_stride_A);
    fprintf(stderr, "    Scanline: ofs=%lu len=%lu\n", image_scanline_data_buffer_offset,
            image_scanline_data_buffer_size);
}

void print_level(int index)
{
    const mipmap_image& m = mipmap[index];
    fprintf(stderr,
            "mipmap[%d]: %d x %d @[%lu,%lu,%lu,%lu] stride=[%lu,%lu,%lu,%lu] scan@%lu+%lu\n", index,
            m.width, m.height, m.offset_Y, m.offset_U, m.offset_V, m.offset_A, m.stride_Y,
            m.stride_U, m.stride_V, m.stride_A, m.scanline_data_offset, m.scanline_data_size);
}

void set_total()
{
    image_decoded_unit_size = image_decoded_size;
    if (__builtin_mul_overflow(image_decoded_unit_size, image_decoded_frames,
                               &image_decoded_size)) {
        image_decoded_size = UINT64_MAX;
    }
    cnb_static_alloc = 1;
    cnb_total = image_decoded_size;
}

} // namespace

std::array<plane_place, 4> planes_of(const mipmap_image& picture)
{
    const uint8_t x = picture.chroma_x_shift;
    const uint8_t y = picture.chroma_y_shift;
    return {{{picture.offset_Y, picture.stride_Y, 0, 0},
             {picture.offset_U, picture.stride_U, x, y},
             {picture.offset_V, picture.stride_V, x, y},
             {picture.offset_A, picture.stride_A, 0, 0}}};
}

void layout_full_size()
{
    INVARIANT(image_width > 0, "image_width > 0");
    INVARIANT(image_height > 0, "image_height > 0");
    const bool chroma = image_is_monochrome == 0;
    const bool alpha = image_has_alpha_channel != 0;

    image_stride_Y = round_up(static_cast<uint64_t>(image_width), full_stride_multiple);
    image_stride_U = image_stride_V = chroma ? image_stride_Y >> image_chroma_x_shift : 0;
    image_stride_A = alpha ? image_stride_Y : 0;

    image_offset_Y = 0;
    uint64_t size = luma_bytes(image_stride_Y, image_buffer_height);
    image_offset_U = chroma ? size : 0;
    size += chroma_bytes(image_stride_U, image_buffer_height);
    image_offset_V = chroma ? size : 0;
    size += chroma_bytes(image_stride_V, image_buffer_height);
    image_offset_A = alpha ? size : 0;
    size += luma_bytes(image_stride_A, image_buffer_height);

    image_scanline_data_buffer_offset = size;
    image_scanline_data_buffer_size = scanline_format::full_size_area;
    image_decoded_size = size + image_scanline_data_buffer_size;
    print_full_size("CNB buffer stats:");
}

void layout_mipmaps()
{
    mipmaps = 0;
    while (mipmaps < max_mipmaps) {
        const unsigned shift = static_cast<unsigned>(mipmaps) + 1;
        if (!level_wanted(shift)) {
            break;
        }
        mipmap_image level = level_shape(shift);
        if (!within_budget(level, image_decoded_size)) {
            break;
        }
        image_decoded_size = place_level(level, image_decoded_size);
        mipmap[mipmaps] = level;
        print_level(mipmaps);
        ++mipmaps;
    }
    set_total();
}

void print_final_layout()
{
    print_full_size("CNB buffer stats [final]:");
    for (int i = 0; i < mipmaps; ++i) {
        print_level(i);
    }
}

void reset_layout()
{
    image_stride_Y = image_stride_U = image_stride_V = image_stride_A = 0;
    image_offset_Y = image_offset_U = image_offset_V = image_offset_A = 0;
    image_scanline_data_buffer_offset = image_scanline_data_buffer_size = 0;
    image_decoded_unit_size = image_decoded_size = 0;
    mipmaps = 0;
    main_image_mipmap = {};
    secondary_image_mipmap_main.clear();
    for (int i = 0; i < max_mipmaps; ++i) {
        mipmap[i] = {};
        secondary_image_mipmap[i].clear();
    }
    image_cnb_alloc = {};
}
