// How long a picture plays, and the conversion between its units and GStreamer's time.
#pragma once

#include <cstdint>
#include <gst/gst.h>

#include "client/timeline.h"

// A timeline as the element plays it. The numbers of the scale are at most 1e6, so that a unit is
// not shorter than GStreamer's time can express; a scale beyond that counts as 1.
struct timeline : timeline_facts {
    timeline() = default;
    explicit timeline(const timeline_facts& facts);

    bool animated = false; // more than one frame
    int loops = 1;         // times through the duration; below 1: without end

    GstClockTime time_of(uint64_t units) const;
    uint64_t units_at(GstClockTime time) const; // rounded down
    uint64_t end() const;                       // of all loops, in units; UINT64_MAX: none
};
