// A client's reference to one frame: which picture of the frame buffer the client gets.
#pragma once

#include <cstdint>
#include <map>

#include "bin/framebuffer/layout.h"
#include "platform/clients.h"

// The level for a client's output size: 0 for the full size, i + 1 for levels[i]. It is the largest
// level of which the output covers at least 75 % (geometric mean of both axes), or the smallest
// level when there is none. A requested size of 0 means unknown and gives the full size; any other
// number, even a negative one, is accepted.
int choose_level(int32_t requested_width, int32_t requested_height, const mipmap_image& full_size,
                 const mipmap_image* levels, int available_levels);

// The index of the frame that is shown at `position`. `points` maps start times to frame indices;
// when it is empty, each frame lasts one time unit. The result is below `frames` unless that is 0.
uint64_t frame_at(const std::map<uint64_t, uint64_t>& points, uint64_t frames, uint64_t position);

class stillimage_video_reference final : public vexa_video_frame_reference {
public:
    stillimage_video_reference() = default;
    ~stillimage_video_reference() override;

    vexa_video_frame* get_frame(long long* error) override;

    // The frame at frame_index. The first call chooses the level; later calls return the same
    // frame. Null with *error set while the picture is not ready. Null, with *error untouched, when
    // there is no such frame or no memory.
    vexa_video_frame* load_frame(long long* error) override;

    unsigned long long map_frame(long long* error) override; // frame index of time_position

    int choose_mipmap_level() const; // choose_level for the client's current output size

    vexa_video_frame* frame = nullptr; // owned
};

// The platform's factory: a reference that the platform owns, or null when there is no memory. The
// owner is not used.
vexa_video_frame_reference* stillimage_new_video_reference(vexa_client_context* owner);
