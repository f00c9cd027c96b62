#include "bin/examine/image_state.h"

int image_file_type = IMAGE_UNKNOWN;
int image_width = -1;
int image_height = -1;
int image_buffer_height = -1;
uint8_t image_chroma_x_shift = 0;
uint8_t image_chroma_y_shift = 0;
int image_has_alpha_channel = 0;
int image_is_monochrome = 0;
uint64_t image_decoded_frames = 1;

std::map<uint64_t, uint64_t>& image_mapping_points = *new std::map<uint64_t, uint64_t>;
uint64_t image_mapping_total = 1;

void reset_image_state()
{
    image_file_type = IMAGE_UNKNOWN;
    image_width = -1;
    image_height = -1;
    image_buffer_height = -1;
    image_chroma_x_shift = 0;
    image_chroma_y_shift = 0;
    image_has_alpha_channel = 0;
    image_is_monochrome = 0;
    image_decoded_frames = 1;
    image_mapping_points.clear();
    image_mapping_total = 1;
}
