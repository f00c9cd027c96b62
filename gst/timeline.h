// How long a picture plays, and what is shown when.
#pragma once

#include <cstdint>
#include <functional>
#include <gst/gst.h>
#include <string>

struct timeline {
    uint64_t duration = 1;        // units, at least 1
    uint64_t scale_numerator = 1; // so many units a second
    uint64_t scale_denominator = 1;
    bool animated = false; // more than one frame
    int loops = 1;         // times through the duration; below 1: without end

    GstClockTime time_of(uint64_t units) const;
    uint64_t units_at(GstClockTime time) const; // rounded down
    uint64_t end() const;                       // of all loops, in units; UINT64_MAX: none
};

// "time duration" and "time scale" of the item. What is missing or makes no sense stays.
void read_timeline(const std::string& status_document, timeline* played);

// Whether the frame that is shown at `position` is the one in question.
using frame_test = std::function<bool(uint64_t position)>;

// Where the frame that is shown at `start` (below `duration`) ends, likely `guess` units later. With a
// right guess two questions do.
uint64_t end_of_frame(uint64_t start, uint64_t guess, uint64_t duration, const frame_test& same_at);
