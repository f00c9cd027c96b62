// Parsing values as people write them: sizes, times, ratios, on and off. Strict: the whole text
// must be the value. Numbers that are too large become the largest one.
#pragma once

#include <cstdint>

#include "platform/misc.h"

namespace platform {

// Bytes: digits, then K, M, G or T (powers of 1024, either case) or nothing. 0 is invalid.
bool parse_size(const char* text, uint64_t* bytes);

// Seconds with or without a fraction ("60", "0.25"), as microseconds; digits after the sixth are
// ignored.
bool parse_seconds(const char* text, uint64_t* microseconds);

// A file descriptor's number.
bool parse_descriptor(const char* text, int* number);

// A picture's aspect ratio: both numbers above 0, or 0:0 for that of the picture.
bool parse_aspect_ratio(const char* text, int_rational* ratio);

// A time scale or another ratio that is used as a divisor: both numbers above 0.
bool parse_positive_ratio(const char* text, int_rational* ratio);

// A whole number, with an optional sign.
bool parse_integer(const char* text, int64_t* number);

// on, yes, true, 1, off, no, false or 0, any case.
bool parse_on_off(const char* text, bool* on);

} // namespace platform
