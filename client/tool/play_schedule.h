// Which moment of the timeline is shown when. Plain arithmetic, exact for as long as it runs.
#pragma once

#include <cstdint>

#include "client/tool/rate.h"

// How long a picture plays: `duration` units, `scale` of them a second.
struct timeline {
    uint64_t duration = 1; // at least 1
    rate scale = {};

    bool operator==(const timeline&) const = default;
};

// Frames a second for a timeline whose frames all last multiples of `delay` units: the lowest rate
// that hits every change of frame, but at least 2, since readers wait for frames. A timeline that
// would need more than 100 is shown at 100.
rate frame_rate_for(const timeline& played, uint64_t delay);

// Counts on by numerator / denominator. Both below 1 << 63.
class fraction_counter {
public:
    fraction_counter(uint64_t numerator, uint64_t denominator);

    void advance();
    uint64_t whole() const { return whole_; } // rounded down

private:
    uint64_t whole_step_;
    uint64_t rest_step_;
    uint64_t denominator_;
    uint64_t whole_ = 0;
    uint64_t rest_ = 0;
};

// The moments that the frames of the stream show, one after the other. Where the rate does not hit
// the timeline's changes, a frame shows what is on at its own start.
class play_position {
public:
    // `loops` times through the timeline; 0: without end.
    play_position(const timeline& played, const rate& frames_a_second, uint64_t loops);

    bool over() const;
    uint64_t moment() const; // in units, below the duration
    void advance() { units_.advance(); }

private:
    uint64_t duration_;
    uint64_t loops_;
    fraction_counter units_;
};

// When the frames are due, in nanoseconds of the clock that `start` comes from.
class play_pace {
public:
    play_pace(const rate& frames_a_second, uint64_t start);

    uint64_t due() const { return start_ + nanoseconds_.whole(); }

    // The frame was taken at `now`. What a reader is late by is caught up with; but one that held
    // still for longer than half a second goes on from where it is.
    void advance(uint64_t now);

private:
    uint64_t start_;
    fraction_counter nanoseconds_;
};
