// Long work in pieces: after each of them clients are served and signals are seen.
#pragma once

#include <cstdint>

struct work_pace {
    uint64_t piece;    // in any unit of work that suits
    uint64_t done = 0; // of the present piece
};

// Adds work that was done. False when a piece is complete and a signal has asked the process to end.
bool keep_pace(work_pace* pace, uint64_t work);
