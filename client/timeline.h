// A picture's timeline. Its length comes from the status document; when each frame starts is found
// by asking the worker which frame is shown at a moment. The library, the tool and the GStreamer
// element share this.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "client/stillimage_client.h"

// "time duration" and "time scale" of the item, the scale in lowest terms. A value that is missing
// or out of range is 1: a duration has 1 to 1e15 units, the numbers of a scale 1 to 2^32 - 1.
struct timeline_facts {
    uint64_t duration = 1;        // units, at least 1
    uint32_t scale_numerator = 1; // units per `scale_denominator` seconds
    uint32_t scale_denominator = 1;

    bool operator==(const timeline_facts&) const = default;
};
timeline_facts read_timeline_facts(std::string_view status_document);

// Whether the frame in question is shown at that moment.
using frame_test = std::function<bool(uint64_t moment)>;

// The end, in units, of the frame that is shown at `start` (below `duration`). `guess` is how many
// units later it probably ends; when it is right, two calls of same_at suffice.
uint64_t end_of_frame(uint64_t start, uint64_t guess, uint64_t duration, const frame_test& same_at);

// Number of the frame shown at that moment; 0 when it is not available.
using frame_finder = std::function<uint64_t(uint64_t moment)>;

// Receives one entry; returns false to end the walk.
using entry_taker = std::function<bool(const stillimage_timeline_entry& entry)>;

// Passes the frames from moment 0 to `duration` to `take`, in order. Asks three times per frame
// while the frames last equally long, more often where they vary. False when a frame was not
// available, or when `take` returned false.
bool walk_timeline(uint64_t duration, const frame_finder& frame_at, const entry_taker& take);
