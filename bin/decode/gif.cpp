// The canvas persists from frame to frame. Each unit is written completely, however little of the
// canvas has changed. The canvas has the planes' stride, so its padding columns are converted too.
#include "bin/decode/gif.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>

#include "bin/decode/colour_rows.h"
#include "bin/decode/gif_canvas.h"
#include "bin/decode/planes.h"
#include "bin/examine/gif.h"
#include "bin/examine/gif_loading.h"
#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "platform/run_state.h"

namespace {

constexpr uint64_t canvas_slack = 256;
constexpr uint64_t saved_slack = 64;
constexpr uint64_t band_rows = 64;

enum disposal : unsigned { TO_BACKGROUND = 2, TO_PREVIOUS = 3 };

struct composition {
    gif_canvas canvas;
    unsigned char* saved; // copy of the canvas before a frame; allocated when first needed
};

uint64_t canvas_size()
{
    return static_cast<uint64_t>(image_height) * image_stride_Y * sizeof(gif_pixel);
}

bool add_to_timeline(uint64_t start_time, uint64_t frame)
{
    try {
        image_mapping_points.insert_or_assign(image_mapping_points.end(), start_time, frame);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool save_canvas(composition* work)
{
    if (work->saved == nullptr) {
        work->saved = static_cast<unsigned char*>(calloc(1, canvas_size() + saved_slack));
    }
    if (work->saved == nullptr) {
        return false;
    }
    memcpy(work->saved, work->canvas.pixels, canvas_size());
    return true;
}

void dispose(composition* work, const SavedImage& frame, unsigned how)
{
    if (how == TO_BACKGROUND) {
        restore_gif_background(work->canvas, frame);
    } else if (how == TO_PREVIOUS) {
        INVARIANT(work->saved != nullptr, "prev_RGBA != __null");
        memcpy(work->canvas.pixels, work->saved, canvas_size());
    }
}

bool map_rows(uint64_t row, uint64_t rows, uint32_t unit_start, plane_band* band)
{
    return map_band(
        {.planes = planes_yuv | planes_a, .first_row = row, .rows = rows, .unit_start = unit_start},
        band);
}

// All planes are mapped completely before the first sample is written. Mapping the bands again only
// makes their pages present in time.
bool convert_canvas(const gif_canvas& canvas, uint32_t unit_start)
{
    const auto height = static_cast<uint64_t>(image_height);
    plane_band band = {};
    if (!map_rows(0, height, unit_start, &band)) {
        return false;
    }
    for (uint64_t row = 0; row < height; row += band_rows) {
        const uint64_t rows = std::min(band_rows, height - row);
        if (!map_rows(row, rows, unit_start, &band)) {
            return false;
        }
        yuva_to_planes(canvas.pixels + row * canvas.pitch, rows * image_stride_Y,
                       samples_at(band, 0));
        if (!go_on_after_gif_row(row + rows - 1)) {
            return true;
        }
    }
    return true;
}

// False when the frame could not be drawn. A signal leaves it unfinished.
bool decode_frame(composition* work, uint64_t i, uint64_t* time)
{
    const SavedImage& frame = gif_image->SavedImages[i];
    const gif_frame_control control = read_gif_frame_control(frame);
    if (!add_to_timeline(*time, i)) {
        return false;
    }
    if (control.disposal == TO_PREVIOUS && !save_canvas(work)) {
        return false;
    }
    *time += control.delay;
    draw_gif_frame(work->canvas, frame, i == 0);
    if (DIE4 != 0) {
        return true;
    }
    if (!convert_canvas(work->canvas, gif_unit_offset(i, image_decoded_unit_size))) {
        return false;
    }
    dispose(work, frame, control.disposal);
    return true;
}

int decode_frames(composition* work)
{
    const auto frames = static_cast<uint64_t>(gif_image->ImageCount);
    uint64_t time = 0;
    uint64_t done = 0;
    while (done < frames && DIE4 == 0) {
        if (!decode_frame(work, done, &time)) {
            return -1;
        }
        ++done;
        quickidle_comm();
    }
    if (done == frames) {
        image_mapping_total = std::max<uint64_t>(time, 1);
    }
    return 0;
}

} // namespace

uint32_t gif_unit_offset(uint64_t frame, uint64_t unit_size)
{
    return static_cast<uint32_t>(frame) * static_cast<uint32_t>(unit_size);
}

int full_decode_gif()
{
    composition work = {};
    work.canvas = {static_cast<unsigned char*>(calloc(1, canvas_size() + canvas_slack)),
                   image_stride_Y * sizeof(gif_pixel), &gif_yuva_form};
    if (work.canvas.pixels == nullptr) {
        fputs("Unable to allocate RGBA frame\n", stderr);
        free_all_gif();
        return -1;
    }
    check_full_size_chroma(__func__);
    INVARIANT(image_has_alpha_channel != 0, "image_has_alpha_channel");
    INVARIANT(gif_image->ImageCount > 0, "gif_image->ImageCount > 0");
    clear_gif_rows(work.canvas, static_cast<size_t>(image_height));
    const int result = decode_frames(&work);
    free(work.saved);
    free(work.canvas.pixels);
    return result;
}
