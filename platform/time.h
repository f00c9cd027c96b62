// Clock of the media-item platform.
#pragma once

#include <cstdint>

// Monotonic time in microseconds. Never goes back and is unaffected by changes of the wall clock.
uint64_t monotonic_clock_us();
