// Rates: units or frames a second.
#pragma once

#include <cstdint>
#include <string>

struct rate {
    uint32_t numerator = 1; // both at least 1
    uint32_t denominator = 1;

    bool operator==(const rate&) const = default;
};

inline constexpr uint32_t max_rate_term = 1'000'000; // of either number

// Reduces to lowest terms. False, with `result` unchanged, when a number is 0, or above
// max_rate_term even in lowest terms.
bool make_rate(uint64_t numerator, uint64_t denominator, rate* result);

// Parses "25", "29.97" or "30000/1001", from one frame in 100 seconds to 1000 frames a second.
bool parse_frame_rate(const std::string& text, rate* result);
