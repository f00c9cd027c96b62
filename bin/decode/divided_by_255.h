// t / 255, truncating, in 16-bit arithmetic: (t + 1 + (t >> 8)) >> 8.
#pragma once

#include <cstdint>

// For t in 0 .. 255 * 255, the products of two samples.
constexpr uint16_t divided_by_255(uint16_t t)
{
    return static_cast<uint16_t>((t + 1 + (t >> 8)) >> 8);
}

constexpr bool division_by_255_is_exact()
{
    for (unsigned t = 0; t <= 255 * 255; ++t) {
        if (divided_by_255(static_cast<uint16_t>(t)) != t / 255) {
            return false;
        }
    }
    return true;
}
static_assert(division_by_255_is_exact());
