// What a worker tells of a picture's timeline: its length by the status document, its frames' start
// times by asking which frame is shown when.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "client/stillimage_client.h"

// "time duration" and "time scale" of the item, the scale in lowest terms. What is missing, or beyond
// what makes sense, is 1.
struct timeline_facts {
    uint64_t duration = 1;
    uint32_t scale_numerator = 1;
    uint32_t scale_denominator = 1;

    bool operator==(const timeline_facts&) const = default;
};
timeline_facts read_timeline_facts(std::string_view status_document);

// Number of the frame shown at that moment; 0: not to be had.
using frame_finder = std::function<uint64_t(uint64_t moment)>;

// Takes one entry; false ends the walk.
using entry_taker = std::function<bool(const stillimage_timeline_entry& entry)>;

// Goes through the frames from the start to `duration`. Three questions a frame where they last alike,
// more where they vary. False when a frame was not to be had, or the taker ended it.
bool walk_timeline(uint64_t duration, const frame_finder& frame_at, const entry_taker& take);
