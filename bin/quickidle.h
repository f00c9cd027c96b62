// Keeping the comm socket and the clients served in the middle of long work.
#pragma once

extern bool slow_decode; // set by the switch "slow-decode"

// Up to 10 rounds of socket and client work, fewer when there is nothing to do; then 10 ms of sleep
// with "slow-decode". Never to be called from inside a client callback or a codec. The argument has
// no effect.
void quickidle_comm(unsigned long unused = 0);
