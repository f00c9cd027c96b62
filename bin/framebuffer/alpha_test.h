// Tests whether an alpha plane has any transparency.
#pragma once

#include <cstddef>

#include "bin/framebuffer/layout.h"

inline constexpr unsigned char opaque_from = 254; // 254 and 255 both count as opaque

enum alpha_verdict {
    ALPHA_OPAQUE,      // every visible sample that could be read is opaque
    ALPHA_TRANSPARENT, // at least one sample is below opaque_from
    ALPHA_UNDECIDED,   // DIE4 ended the test
};

// Reads the visible samples of the picture's A plane, which must exist, up to the first transparent
// one. Skips rows that cannot be mapped. Serves the comm socket between bands of rows.
alpha_verdict test_alpha_plane(const mipmap_image& picture);

// Whether any of the samples is below opaque_from.
bool any_transparent(const unsigned char* samples, size_t count);
