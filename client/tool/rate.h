// Rates: so many of something a second.
#pragma once

#include <cstdint>
#include <string>

struct rate {
    uint32_t numerator = 1; // both at least 1
    uint32_t denominator = 1;

    bool operator==(const rate&) const = default;
};

inline constexpr uint32_t most_rate_term = 1'000'000; // of either number

// In lowest terms. False when a number is 0, or too large even then; `result` is then unchanged.
bool make_rate(uint64_t numerator, uint64_t denominator, rate* result);

// "25", "29.97" or "30000/1001"; from one in a hundred seconds to a thousand a second.
bool parse_frame_rate(const std::string& text, rate* result);
