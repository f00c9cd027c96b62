// The rest of the process, seen from the inside of a codec that reads its file: a single call into
// a library may go through gigabytes.
//
// Clients are served all the time. While a picture is examined a termination signal ends reading at
// once. From the first row on it is left to the decoder, which looks for it between its rows and
// keeps what it has drawn; reading ends only when the decoder does not get there.
#pragma once

#include <cstdint>

inline constexpr uint64_t decoder_notices_signal_within_us = 30'000;

void watch_examination(); // called before the first byte of a picture is read
void watch_decoding();    // called when the picture is examined

// Called for each few kilobytes of a file. True when the codec shall be left. Costs a look at the
// clock, as clients are served every half millisecond at most. Never called by what serves them.
bool reading_has_to_end();
