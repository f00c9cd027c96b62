// Frame buffer layout: where every plane of every picture lies in the one shared allocation.
// Byte for byte, with a worked example: docs/frame-buffer.md.
//
// A unit is one frame: its full-size planes Y, U, V, A (each when present), its scanline data area,
// then the mipmap levels, each with the same parts. Frame t's offsets are frame 0's plus t *
// image_decoded_unit_size.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "platform/cnb.h"

inline constexpr uint64_t absent_plane = 0xFFFFFFFF; // 32-bit all-ones in a 64-bit field
inline constexpr int max_mipmaps = 16;
inline constexpr uint64_t unit_budget = 0xEFFFFFFF; // bytes beyond which no level is laid out

// One picture (a frame at one level) in the frame buffer. Offsets and sizes are in bytes.
struct mipmap_image {
    int32_t width;
    int32_t height;
    int32_t buffer_height; // rows allocated per luma plane
    uint64_t offset_Y;
    uint64_t offset_U; // absent_plane when there is none, as for V and A
    uint64_t offset_V;
    uint64_t offset_A;
    uint64_t stride_Y;
    uint64_t stride_U; // 0 when absent
    uint64_t stride_V;
    uint64_t stride_A;
    uint64_t scanline_data_size;
    uint64_t scanline_data_offset;
    uint8_t chroma_x_shift;
    uint8_t chroma_y_shift;
    uint32_t scale_x; // against the full picture, 16.16
    uint32_t scale_y;
};

// One plane of a picture. Luma and alpha have shifts of 0.
struct plane_place {
    uint64_t offset; // absent_plane when there is none
    uint64_t stride; // 0 when absent
    uint8_t x_shift;
    uint8_t y_shift;
};

std::array<plane_place, 4> planes_of(const mipmap_image& picture); // Y, U, V, A

// Full-size planes of frame 0. Written by layout_full_size, and for A by the alpha test. An absent
// plane has offset 0 and stride 0 here, but offset absent_plane in a mipmap_image.
extern uint64_t image_stride_Y, image_stride_U, image_stride_V, image_stride_A;
extern uint64_t image_offset_Y, image_offset_U, image_offset_V, image_offset_A;
extern uint64_t image_scanline_data_buffer_offset;
extern uint64_t image_scanline_data_buffer_size;

extern uint64_t image_decoded_unit_size; // bytes of one frame's unit
extern uint64_t image_decoded_size;      // the running size during layout, then the total
extern int mipmaps;                      // levels laid out

extern mipmap_image mipmap[max_mipmaps];                      // levels of frame 0
extern mipmap_image main_image_mipmap;                        // full size of frame 0
extern std::vector<mipmap_image> secondary_image_mipmap_main; // full size of frames 1, 2, ...
extern std::vector<mipmap_image> secondary_image_mipmap[max_mipmaps]; // levels of frames 1, 2, ...

extern cnb_allocation image_cnb_alloc; // the frame buffer

// Lays out frame 0's full-size planes from the image state and prints the first "CNB buffer
// stats:".
void layout_full_size();

// Lays out the mipmap levels after them, prints a line for each, and sets the unit size, the total
// and cnb_total. A total beyond 64 bits is stored as all ones, which no buffer can hold.
void layout_mipmaps();

void print_final_layout(); // the "CNB buffer stats [final]:" block and a line for each level

void reset_layout(); // back to the values at program start
