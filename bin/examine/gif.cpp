#include "bin/examine/gif.h"

#include <cstdio>

#include "bin/examine/gif_input.h"
#include "bin/examine/gif_loading.h"
#include "bin/examine/image_state.h"
#include "platform/cnb.h"
#include "platform/item_metadata.h"
#include "platform/run_state.h"
#include "platform/settings.h"

GifFileType* gif_image = nullptr;

namespace {

constexpr int planes = 4; // Y, U, V and A, all of the screen's size

int refuse(const char* message)
{
    fputs(message, stderr);
    free_all_gif();
    return 1;
}

uint64_t round_up(int size)
{
    return static_cast<uint64_t>(round_up_to_16(size));
}

// How many frames to keep: as many as the platform's memory could hold if they had no scanline
// lists and no reduced levels. More can never be decoded.
uint64_t frames_to_keep()
{
    if (vexa_identify_only || vexa_create_meta) {
        return 0;
    }
    const uint64_t unit = round_up(gif_image->SWidth) * round_up(gif_image->SHeight) * planes;
    return cnb_largest_total() / (unit > 0 ? unit : 1);
}

void print_contents(const gif_contents& found)
{
    fprintf(stderr, "GIF: Screen is %u x %u colorres=%u bgcolor=%u ImageCount=%u\n",
            static_cast<unsigned>(gif_image->SWidth), static_cast<unsigned>(gif_image->SHeight),
            static_cast<unsigned>(gif_image->SColorResolution),
            static_cast<unsigned>(gif_image->SBackGroundColor),
            static_cast<unsigned>(found.frames));
}

void publish_image_state(const gif_contents& found)
{
    image_width = gif_image->SWidth;
    image_height = gif_image->SHeight;
    image_buffer_height = round_up_to_16(image_height);
    image_chroma_x_shift = 0;
    image_chroma_y_shift = 0;
    image_has_alpha_channel = 1; // even when no frame has transparency
    image_is_monochrome = 0;
    image_decoded_frames = found.frames;
    image_mapping_total = found.running_time;
}

} // namespace

int examine_gif_file()
{
    if (gif_image != nullptr) {
        fputs("BUG: examine_gif_file() when already opened\n", stderr);
        return 1;
    }
    const int fd = metadata_v4_context_get_file_handle(vexa_meta, 0);
    if (fd < 0) {
        fputs("Unable to get file handle\n", stderr);
        return 1;
    }
    gif_image = open_gif(fd);
    if (gif_image == nullptr) {
        return refuse(DIE4 != 0 ? "" : "Cannot open GIF\n");
    }
    gif_contents found = {};
    const int result = load_gif(gif_image, frames_to_keep(), &found);
    if (DIE4 != 0) {
        return refuse("");
    }
    if (result != GIF_OK) {
        fputs("GIF reading error (?)\n", stderr);
    }
    print_contents(found);
    if (gif_image->SWidth == 0 || gif_image->SHeight == 0 || found.frames == 0) {
        return refuse("Invalid GIF state\n");
    }
    publish_image_state(found);
    return 0;
}

void free_all_gif()
{
    close_gif(gif_image);
    gif_image = nullptr;
}
