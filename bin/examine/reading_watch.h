// Serves clients and polls for termination while a codec reads its file: a single library call may
// read gigabytes.
//
// During examination a termination signal stops reading at once. During decoding the decoder polls
// for the signal between its rows and keeps the rows it has drawn, so reading is stopped only when
// the decoder does not get to its next poll in time. A format that never calls watch_decoding stops
// at once then, too.
#pragma once

#include <cstdint>

inline constexpr uint64_t max_decoder_delay_us = 30'000; // from the signal to the decoder's poll

void watch_examination(); // call before the first byte of a picture is read
void watch_decoding();    // call when examination has succeeded

// Call for every few kilobytes of a file, but never while clients are being served. True when the
// codec must be left. Serves clients at most every half millisecond, so it usually costs one
// reading of the clock.
bool must_stop_reading();
