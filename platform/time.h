// Clock of the media-item platform.
#pragma once

#include <cstdint>

// Monotonic time in microseconds. Never goes back, unaffected by wall-clock changes.
uint64_t monotonic_clock_us();
