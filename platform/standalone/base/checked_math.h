// 64-bit sums and products that cannot wrap unnoticed.
#pragma once

#include <cstdint>

namespace platform {

// False when the result does not fit; *result is then unspecified.
[[nodiscard]] constexpr bool checked_add(uint64_t a, uint64_t b, uint64_t* result)
{
    return !__builtin_add_overflow(a, b, result);
}

[[nodiscard]] constexpr bool checked_multiply(uint64_t a, uint64_t b, uint64_t* result)
{
    return !__builtin_mul_overflow(a, b, result);
}

// The largest number where the sum does not fit: for deadlines, which then never come.
constexpr uint64_t saturating_add(uint64_t a, uint64_t b)
{
    uint64_t sum = 0;
    return checked_add(a, b, &sum) ? sum : UINT64_MAX;
}

} // namespace platform
