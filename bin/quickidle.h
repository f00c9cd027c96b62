// Keeping the comm socket and the clients served in the middle of long work.
#pragma once

extern bool slow_decode; // set by the switch "slow-decode"

// Up to 10 rounds of socket and client work, fewer when there is nothing to do. Never to be called
// from inside a client callback. Inside a codec only where nothing that a client may ask for can
// reach the codec, and where no jump can skip it.
void quickidle_rounds();

// The same for long work in small steps. The work starts the clock and then calls quickidle_when_due
// at each step: nothing happens within half a millisecond of the start, or of the last time.
void start_quickidle_clock();
void quickidle_when_due();

// The rounds between two calls of a codec; then 10 ms of sleep with "slow-decode". The argument has
// no effect.
void quickidle_comm(unsigned long unused = 0);
