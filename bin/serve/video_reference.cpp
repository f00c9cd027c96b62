#include "bin/serve/video_reference.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <new>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/mipmap.h"
#include "platform/run_state.h"
#include "platform/settings.h"

namespace {

constexpr double min_coverage = 0.75;

bool covers(int32_t width, int32_t height, const mipmap_image& picture)
{
    // One negative size gives NaN, which covers nothing.
    return std::sqrt((static_cast<double>(width) / picture.width) *
                     (static_cast<double>(height) / picture.height)) >= min_coverage;
}

// Null for an index past the last frame.
const mipmap_image* further_frame(const std::vector<mipmap_image>& frames, uint64_t index)
{
    return index <= frames.size() ? &frames[index - 1] : nullptr;
}

const mipmap_image* find_picture(int level, uint64_t index)
{
    if (level == 0) {
        return index == 0 ? &main_image_mipmap : further_frame(secondary_image_mipmap_main, index);
    }
    return index == 0 ? &mipmap[level - 1]
                      : further_frame(secondary_image_mipmap[level - 1], index);
}

vexa_video_frame* describe(const mipmap_image& picture, uint64_t index)
{
    auto* frame = new (std::nothrow) vexa_video_frame(0);
    if (frame == nullptr) {
        return nullptr;
    }
    frame->buffer_number = image_cnb_buffer;
    frame->base_offset = 0;
    frame->area_size = image_decoded_size;
    frame->scanline_list = {picture.scanline_data_offset, picture.scanline_data_size};
    frame->scanline_area = frame->scanline_list;
    frame->frame_number = index + 1;
    // Always the full size. The scanline list of a level has the level's own size.
    frame->width = image_width;
    frame->height = image_height;
    frame->aspect_ratio = vexa_aspect_ratio;
    frame->has_scanline_list = 1;
    frame->is_video = 1;
    return frame;
}

} // namespace

int choose_level(int32_t requested_width, int32_t requested_height, const mipmap_image& full_size,
                 const mipmap_image* levels, int available_levels)
{
    if (requested_width == 0 || requested_height == 0 ||
        covers(requested_width, requested_height, full_size) || available_levels <= 0) {
        return 0;
    }
    int level = 0;
    while (level + 1 < available_levels &&
           !covers(requested_width, requested_height, levels[level])) {
        ++level;
    }
    return level + 1;
}

uint64_t frame_at(const std::map<uint64_t, uint64_t>& points, uint64_t frames, uint64_t position)
{
    uint64_t index = position;
    if (!points.empty()) {
        const auto next = points.upper_bound(position);
        index = next == points.begin() ? next->second : std::prev(next)->second;
    }
    return frames == 0 ? index : std::min(index, frames - 1);
}

stillimage_video_reference::~stillimage_video_reference()
{
    if (frame == nullptr) {
        return;
    }
    if (frame->refcount != 0) {
        fprintf(stderr, "WARNING: deleting video reference to frame with refcount=%d\n",
                frame->refcount);
    }
    delete frame;
    frame = nullptr;
}

vexa_video_frame* stillimage_video_reference::get_frame(long long* error)
{
    return load_frame(error);
}

vexa_video_frame* stillimage_video_reference::load_frame(long long* error)
{
    if (!vexa_ready) {
        *error = error_not_ready;
        return nullptr;
    }
    const mipmap_image* picture = find_picture(choose_mipmap_level(), frame_index);
    if (picture == nullptr) {
        return nullptr;
    }
    if (frame == nullptr) {
        frame = describe(*picture, frame_index);
    }
    return frame;
}

unsigned long long stillimage_video_reference::map_frame(long long* /*error*/)
{
    return frame_at(image_mapping_points, image_decoded_frames, time_position);
}

int stillimage_video_reference::choose_mipmap_level() const
{
    const auto* client = client_context_tracking::get_id(vexa_client_contexts, context_id);
    if (client == nullptr) {
        return 0;
    }
    return choose_level(client->requested_width, client->requested_height, main_image_mipmap,
                        mipmap, mipmaps_avail);
}

vexa_video_frame_reference* stillimage_new_video_reference(vexa_client_context* /*owner*/)
{
    return new (std::nothrow) stillimage_video_reference;
}
