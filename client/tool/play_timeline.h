// What the worker tells of a picture's timeline: its length by the status document, its frames' start
// times by asking which frame is shown when.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "client/tool/play_schedule.h"

// "time duration" and "time scale" of the item. What is missing, or beyond what makes sense, is 1.
timeline timeline_of(const std::string& status_document);

// Number of the frame shown at that moment; 0: not to be had.
using frame_finder = std::function<uint64_t(uint64_t moment)>;

// Greatest common divisor of the times that the frames are shown for. Two questions a frame where the
// times are alike, more where they vary; after 10,000 frames, or when a frame is not to be had, it
// is 1.
uint64_t common_delay(uint64_t duration, const frame_finder& frame_at);
