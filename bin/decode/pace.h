// Long work is done in pieces. After each piece clients are served and signals are seen.
#pragma once

#include <cstdint>

struct work_pace {
    uint64_t piece;    // in any unit of work
    uint64_t done = 0; // of the current piece
};

// Adds finished work. False when a piece is complete and a signal has asked the process to end.
bool keep_pace(work_pace* pace, uint64_t work);
