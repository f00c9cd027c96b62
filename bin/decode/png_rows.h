// The row loop of the PNG decoders: rows from the library into the frame buffer's planes, one batch
// after the other. What differs between the colour types is a row of a table.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bin/decode/planes.h"

// Interlaced pictures have a decoder of their own; these texts answer one that comes here all the
// same.
struct png_interlace_refusal {
    const char* adam7_status; // to the host; null: no refusal, it is an invariant
    const char* other_status; // to the host for methods that do not exist; null: none
};

struct png_variant {
    const char* name; // of the decoder, for invariants
    png_interlace_refusal interlace;
    bool draws[4]; // planes of the frame buffer, by frame_plane_index

    // Mapped, and reported to the host, at a time.
    uint64_t batch_rows;

    // Converted at a time. Fewer than a batch keep the rows in the near cache.
    uint64_t group_rows;

    // True: a batch that a library error interrupts is black and opaque as a whole. False: it stays
    // as it was, and a batch is one group.
    bool blackens;

    size_t pixel_bytes; // in a staging row; 0: rows are read straight into the Y plane

    // `count` pixels, stride padding included. `planes` by frame_plane_index, null where `draws` is
    // false; `staging` is null without staging rows.
    void (*convert)(const unsigned char* staging, unsigned char* const planes[4], size_t count);
};

inline constexpr uint64_t most_png_batch_rows = 128;

// Reads and converts the open picture, reports progress. -1, with the reader closed, when the
// picture is interlaced or there is no memory. 0 otherwise, also when the loop stopped early (the
// reason is printed, none for DIE4).
int decode_png_rows(const png_variant& variant);
