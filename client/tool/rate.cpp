#include "client/tool/rate.h"

#include <cctype>
#include <numeric>

namespace {

constexpr size_t max_digits = 9;

// Reads the digits at `*at` and moves `*at` past them. False without a digit, or with too many.
bool take_number(const std::string& text, size_t* at, uint64_t* number)
{
    const size_t start = *at;
    *number = 0;
    while (*at < text.size() && isdigit(static_cast<unsigned char>(text[*at])) != 0) {
        *number = *number * 10 + static_cast<uint64_t>(text[*at] - '0');
        if (++*at - start > max_digits) {
            return false;
        }
    }
    return *at > start;
}

bool parse_terms(const std::string& text, uint64_t* numerator, uint64_t* denominator)
{
    size_t at = 0;
    *denominator = 1;
    if (!take_number(text, &at, numerator)) {
        return false;
    }
    if (at == text.size()) {
        return true;
    }
    const char sign = text[at++];
    const size_t after_sign = at;
    uint64_t second = 0;
    if ((sign != '/' && sign != '.') || !take_number(text, &at, &second) || at != text.size()) {
        return false;
    }
    if (sign == '/') {
        *denominator = second;
        return true;
    }
    for (size_t digit = after_sign; digit < at; ++digit) {
        *numerator *= 10;
        *denominator *= 10;
    }
    *numerator += second;
    return true;
}

} // namespace

bool make_rate(uint64_t numerator, uint64_t denominator, rate* result)
{
    if (numerator == 0 || denominator == 0) {
        return false;
    }
    const uint64_t common = std::gcd(numerator, denominator);
    if (numerator / common > max_rate_term || denominator / common > max_rate_term) {
        return false;
    }
    *result = {static_cast<uint32_t>(numerator / common),
               static_cast<uint32_t>(denominator / common)};
    return true;
}

bool parse_frame_rate(const std::string& text, rate* result)
{
    constexpr uint64_t max_rate = 1000;    // frames a second
    constexpr uint64_t max_duration = 100; // of a frame, in seconds
    uint64_t numerator = 0;
    uint64_t denominator = 0;
    return parse_terms(text, &numerator, &denominator) && numerator <= max_rate * denominator &&
           denominator <= max_duration * numerator && make_rate(numerator, denominator, result);
}
