#include "bin/framebuffer/records.h"

#include <cstdio>
#include <exception>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/scanline_list.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/run_state.h"

namespace {

constexpr uint32_t full_scale = 0x10000;
constexpr uint64_t frames_between_pumps = 64;

// The full-size record of the frame whose unit begins at `unit_offset`.
mipmap_image full_size_record(uint64_t unit_offset)
{
    const bool chroma = image_is_monochrome == 0;
    const bool alpha = image_has_alpha_channel != 0;
    mipmap_image picture = {};
    picture.width = image_width;
    picture.height = image_height;
    picture.buffer_height = image_buffer_height;
    picture.offset_Y = image_offset_Y + unit_offset;
    picture.offset_U = chroma ? image_offset_U + unit_offset : absent_plane;
    picture.offset_V = chroma ? image_offset_V + unit_offset : absent_plane;
    picture.offset_A = alpha ? image_offset_A + unit_offset : absent_plane;
    picture.stride_Y = image_stride_Y;
    picture.stride_U = image_stride_U;
    picture.stride_V = image_stride_V;
    picture.stride_A = image_stride_A;
    picture.scanline_data_size = image_scanline_data_buffer_size;
    picture.scanline_data_offset = image_scanline_data_buffer_offset + unit_offset;
    picture.chroma_x_shift = image_chroma_x_shift;
    picture.chroma_y_shift = image_chroma_y_shift;
    picture.scale_x = picture.scale_y = full_scale;
    return picture;
}

uint64_t shifted(uint64_t plane_offset, uint64_t unit_offset)
{
    return plane_offset != absent_plane ? plane_offset + unit_offset : absent_plane;
}

mipmap_image level_record(mipmap_image level, uint64_t unit_offset)
{
    level.offset_Y = shifted(level.offset_Y, unit_offset);
    level.offset_U = shifted(level.offset_U, unit_offset);
    level.offset_V = shifted(level.offset_V, unit_offset);
    level.offset_A = shifted(level.offset_A, unit_offset);
    level.scanline_data_offset += unit_offset;
    return level;
}

void build_first_frame()
{
    main_image_mipmap = full_size_record(0);
    try_scanline_list(&main_image_mipmap, 1);
    for (int i = 0; i < mipmaps; ++i) {
        try_scanline_list(&mipmap[i], 1);
    }
}

// Reserves room for the records without touching it, which would take as long as building them.
int reserve_further_frames()
{
    const uint64_t further = image_decoded_frames > 1 ? image_decoded_frames - 1 : 0;
    try {
        secondary_image_mipmap_main.clear();
        secondary_image_mipmap_main.reserve(further);
        for (int i = 0; i < max_mipmaps; ++i) {
            secondary_image_mipmap[i].clear();
            secondary_image_mipmap[i].reserve(i < mipmaps ? further : 0);
        }
    } catch (const std::exception&) { // no memory, or more records than a vector can hold
        fputs("CNB allocation failed\n", stderr);
        return -1;
    }
    return 0;
}

void build_further_frame(uint64_t frame)
{
    const uint64_t unit_offset = frame * image_decoded_unit_size;
    const size_t idx = frame - 1;
    secondary_image_mipmap_main.push_back(full_size_record(unit_offset));
    INVARIANT(idx < secondary_image_mipmap_main.size(), "idx < secondary_image_mipmap_main.size()");
    try_scanline_list(&secondary_image_mipmap_main[idx], frame + 1);
    for (int t = 0; t < mipmaps; ++t) {
        secondary_image_mipmap[t].push_back(level_record(mipmap[t], unit_offset));
        INVARIANT(idx < secondary_image_mipmap[t].size(), "idx < secondary_image_mipmap[t].size()");
        try_scanline_list(&secondary_image_mipmap[t][idx], frame + 1);
    }
}

} // namespace

int build_picture_records()
{
    build_first_frame();
    if (reserve_further_frames() != 0) {
        return -1;
    }
    for (uint64_t frame = 1; frame < image_decoded_frames && DIE4 == 0; ++frame) {
        if (frame % frames_between_pumps == 0) {
            quickidle_comm();
        }
        build_further_frame(frame);
    }
    return 0;
}
