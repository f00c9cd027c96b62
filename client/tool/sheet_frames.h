// Which frames of an animation a contact sheet shows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

struct sheet_frame {
    uint64_t number; // 1 for the first
    uint64_t start;  // on the timeline
    bool operator==(const sheet_frame&) const = default;
};

struct sheet_frames {
    uint64_t total = 0; // frames of the animation
    std::vector<sheet_frame> shown;
};

// Chooses at most `max_frames` (at least 2) frames at even distances, including the first and the
// last. `number_at` returns the number of the frame that is shown at a moment below `duration`.
// Frames that are never shown are left out.
sheet_frames frames_for_sheet(uint64_t duration, size_t max_frames,
                              const std::function<uint64_t(uint64_t moment)>& number_at);
