// The strip loop of the TIFF decoders: strips from the library into the frame buffer's planes, at
// most one strip a pass. What differs between the colour models is a row of a table.
#pragma once

#include <cstdint>

#include "bin/decode/planes.h"
#include "bin/decode/tiff_rows.h"

struct tiff_variant {
    const char* name; // of the decoder, for invariants
    tiff_model model;
    uint64_t band_rows;                 // mapped for a pass
    int planes;                         // that are drawn beside A: 1 (Y) or 3 (Y, U, V)
    bool draws_alpha;                   // when the picture has alpha
    bool starts_black;                  // mapped rows that are not drawn become black and opaque
    frame_plane_index alpha_failure_is; // the plane that the message names when A cannot be mapped
};

// Reads and draws every strip and reports progress. -1, with a message, when there is no memory for
// a strip or no palette. 0 otherwise, also when the loop stopped early (the reason is printed, none
// for DIE4).
int decode_tiff_strips(const tiff_variant& variant);
