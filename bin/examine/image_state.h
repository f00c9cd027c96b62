// The image state: what examination finds out about the picture. Written by bin/examine, read by
// all later stages. There are two later writers: the alpha test of the mipmap pyramid clears
// image_has_alpha_channel, and the GIF decoder fills the timeline.
#pragma once

#include <cstdint>
#include <map>

enum image_type : int {
    IMAGE_UNKNOWN = -1,
    IMAGE_NOT_IDENTIFIED = 0,
    IMAGE_TIFF = 1,
    IMAGE_JPEG = 2,
    IMAGE_PNG = 3,
    IMAGE_GIF = 4,
    IMAGE_WEBP = 5,
};

// The invariant that no type lies above the last one. A further format changes both.
inline constexpr int max_image_type = IMAGE_WEBP;
inline constexpr const char* max_image_type_invariant = "image_file_type <= 5";

inline constexpr int image_size_limit = 16384; // pixels in either direction, for JPEG, PNG and TIFF

extern int image_file_type; // an image_type
extern int image_width;     // pixels; -1 before examination
extern int image_height;
extern int image_buffer_height;      // rows allocated per full-size plane; -1 before examination
extern uint8_t image_chroma_x_shift; // log2 of the chroma planes' subsampling: 0, 1 or 2
extern uint8_t image_chroma_y_shift;
extern int image_has_alpha_channel; // 1: an A plane is kept
extern int image_is_monochrome;     // 1: there are no U and V planes
extern uint64_t image_decoded_frames;

// Timeline of an animation: start time (1/100 s) to frame index, and the running time (at least 1).
// The map is never destroyed, since that would take as long at exit as filling it did.
extern std::map<uint64_t, uint64_t>& image_mapping_points;
extern uint64_t image_mapping_total;

// Rows of a plane, for formats whose planes have a multiple of 16 rows.
inline int round_up_to_16(int rows)
{
    return (rows + 15) & ~15;
}

void reset_image_state(); // back to the values at program start
