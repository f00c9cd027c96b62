// Scanline list: byte offsets in the record that describes one picture to other processes. The
// fields are packed and little-endian. Field by field with a worked example: docs/scanline-list.md.
#pragma once

#include <cstddef>
#include <cstdint>

namespace scanline_format {

inline constexpr uint32_t magic = 0x9D47E163;
inline constexpr char end_mark[4] = {'E', 'N', 'D', '!'};
inline constexpr uint8_t plane_marker = 0x80;
inline constexpr uint32_t absent_plane = 0xFFFFFFFF;

inline constexpr size_t at_magic = 0;               // u32
inline constexpr size_t at_area_size = 4;           // u32
inline constexpr size_t at_frame_number = 8;        // u64
inline constexpr size_t at_full_width = 16;         // u16
inline constexpr size_t at_full_height = 18;        // u16
inline constexpr size_t at_aspect_numerator = 20;   // u16
inline constexpr size_t at_aspect_denominator = 22; // u16
inline constexpr size_t at_constants = 28;          // u8 x 4
inline constexpr size_t header_size = 32;
inline constexpr size_t at_buffer_number = 32; // u16
inline constexpr size_t at_shortcut = 34;
inline constexpr size_t at_strides = 34;            // u16 x 4: Y, U, V, A
inline constexpr size_t at_plane_markers = 46;      // u8 x 4
inline constexpr size_t at_shortcut_constants = 50; // u8 x 3
inline constexpr size_t at_source_x = 53;           // u64, 16.16 as the next seven
inline constexpr size_t at_source_y = 61;
inline constexpr size_t at_source_width = 69;
inline constexpr size_t at_source_height = 77;
inline constexpr size_t at_destination_x = 93;
inline constexpr size_t at_destination_y = 101;
inline constexpr size_t at_destination_width = 109;
inline constexpr size_t at_destination_height = 117;
inline constexpr size_t at_horizontal_masks = 133; // u8 x 4
inline constexpr size_t at_vertical_masks = 137;   // u8 x 4
inline constexpr size_t at_plane_offsets = 141;    // u32 x 4
inline constexpr size_t at_last_rows = 157;        // u16 x 4
inline constexpr size_t at_end_mark = 165;         // "END!"
inline constexpr size_t record_size = 169;

inline constexpr uint64_t full_size_area = 197; // bytes of a full-size picture's area
inline constexpr uint64_t level_area = 2245;    // bytes of a mipmap level's area

} // namespace scanline_format
