// Which moment of the timeline is shown when. Integer arithmetic without any drift.
#pragma once

#include <cstdint>

#include "client/tool/rate.h"

inline constexpr uint64_t ns_per_second = 1'000'000'000;

// How long a picture plays: `duration` units, `scale` units a second.
struct timeline {
    uint64_t duration = 1; // at least 1
    rate scale = {};

    bool operator==(const timeline&) const = default;
};

// Frames a second for a timeline whose frames all last multiples of `delay` units: the lowest rate
// that hits every change of frame. It is at least 2, so that readers need not wait long for a
// frame, and at most 100.
rate frame_rate_for(const timeline& played, uint64_t delay);

// Counts in steps of numerator / denominator, both below 1 << 63.
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

// The moments of the timeline that the frames of the stream show, in order. Each frame shows the
// picture of the moment at which it starts.
class play_position {
public:
    // `loops`: how often the timeline is played; 0: endlessly.
    play_position(const timeline& played, const rate& frames_a_second, uint64_t loops);

    bool over() const;
    uint64_t moment() const; // in units, below the duration
    void advance() { units_.advance(); }

private:
    uint64_t duration_;
    uint64_t loops_;
    fraction_counter units_;
};

// When the frames are due, in nanoseconds of the clock of `start`.
class play_pace {
public:
    play_pace(const rate& frames_a_second, uint64_t start);

    uint64_t due() const { return start_ + nanoseconds_.whole(); }

    // Call when a frame has been written, at `now`. After a delay of up to half a second the
    // schedule stays, so the next frames follow faster; after a longer one it continues from `now`.
    void advance(uint64_t now);

private:
    uint64_t start_;
    fraction_counter nanoseconds_;
};
