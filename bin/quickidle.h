// Serves the comm socket and the clients in the middle of long work.
#pragma once

extern bool slow_decode; // set by the switch "slow-decode"

// Up to 10 rounds of socket and client work, fewer when there is nothing to do. Must not be called
// from a client callback. May be called from inside a codec (a read callback, say) only if no
// client request can reach that codec, and if no jump can skip this call.
void quickidle_rounds();

// The same for work in many small steps. Start the clock before the work and call
// quickidle_when_due at each step: it does nothing until half a millisecond after the start, or
// after it last served.
void start_quickidle_clock();
void quickidle_when_due();

// The rounds between two calls of a codec, and then, with "slow-decode", 10 ms of sleep. The
// argument has no effect.
void quickidle_comm(unsigned long unused = 0);
