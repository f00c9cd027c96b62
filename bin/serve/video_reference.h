// A client's hold on one frame: which picture of the frame buffer the client is shown.
#pragma once

#include <cstdint>
#include <map>

#include "bin/framebuffer/layout.h"
#include "platform/media_item.h"

// The level that suits an output size: 0 for the full size, i + 1 for levels[i]. It is the largest
// one that the output covers to at least 75 % (geometric mean of both axes), and the smallest one
// when none is. A size of 0 is unknown and gets the full size; any other number is safe.
int choose_level(int32_t requested_width, int32_t requested_height, const mipmap_image& full_size,
                 const mipmap_image* levels, int available_levels);

// The frame shown at `position` by the timeline `points` (start time to frame index; empty: one
// time unit a frame). Never past the last of `frames`, as long as there are any.
uint64_t frame_at(const std::map<uint64_t, uint64_t>& points, uint64_t frames, uint64_t position);

class stillimage_video_reference final : public vexa_video_frame_reference {
public:
    stillimage_video_reference() = default;
    ~stillimage_video_reference() override;

    vexa_video_frame* get_frame(long long* error) override;

    // The frame of frame_index, bound to the picture of the first call for good. Null with *error
    // set while the picture is not ready; null alone for a frame that does not exist, and without
    // memory.
    vexa_video_frame* load_frame(long long* error) override;

    unsigned long long map_frame(long long* error) override; // frame index of time_position

    int choose_mipmap_level() const; // for the client's present output size, as choose_level

    vexa_video_frame* frame = nullptr; // owned
};

// The platform's factory: a reference that the platform owns, or null without memory. The owner is
// not looked at.
vexa_video_frame_reference* stillimage_new_video_reference(vexa_client_context* owner);
