// The whole run of a GIF: examination, layout, records of every frame, decoding, mipmaps, clean-up.
// A last byte below 32, which no complete GIF has, is the number of the idle round in which a
// signal arrives.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "bin/decode/gif.h"
#include "bin/decode/gif_canvas.h"
#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "fuzz/picture_run.h"
#include "platform/run_state.h"
#include "tests/support/scripted_platform.h"

namespace {

constexpr uint64_t buffer_limit = 8 << 20; // larger ones only cost time
constexpr int64_t raster_limit = 1 << 22;
constexpr int signal_rounds = 32;

bool costs_too_much()
{
    int64_t pixels = 0;
    for (int i = 0; i < gif_image->ImageCount; ++i) {
        const GifImageDesc& frame = gif_image->SavedImages[i].ImageDesc;
        pixels += int64_t{frame.Width} * frame.Height;
    }
    return image_decoded_size > buffer_limit || pixels > raster_limit;
}

void check_timeline()
{
    require(image_mapping_points.size() <= image_decoded_frames);
    uint64_t frame = 0;
    for (const auto& [start, index] : image_mapping_points) {
        require(index == frame++);
        require(start < image_mapping_total);
    }
}

void run_picture()
{
    if (examine_gif_file() != 0) {
        require(gif_image == nullptr);
        return;
    }
    require(image_width >= 1 && image_height >= 1 && image_decoded_frames >= 1);
    lay_out();
    if (costs_too_much()) {
        return;
    }
    allocate_buffer();
    const uint64_t running_time = image_mapping_total;
    require(full_decode_gif() == 0);
    check_timeline();
    if (DIE4 == 0) {
        require(image_mapping_points.size() == image_decoded_frames);
        require(image_mapping_total == running_time);
    }
    build_mipmaps();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    reset_gif_canvas();
    reset_everything();
    set_input(data, size, signal_rounds);
    run_picture();
    free_all_gif();
    free_all_gif();
    require(gif_image == nullptr);
    reset_gif_canvas();
    reset_everything();
    return 0;
}
