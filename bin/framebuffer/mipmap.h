// The mipmap pyramid: each level half the size of the one above it.
#pragma once

#include "bin/framebuffer/layout.h"

// Levels that are filled and may be served: 0 until the pyramid of every frame is complete, then
// `mipmaps`. Written by generate_all_mipmaps.
extern int mipmaps_avail;

// The alpha plane has been tested for transparency. Written by generate_all_mipmaps.
extern bool checked_main_alpha;

// Drops the alpha plane of frame 0 when it is opaque, fills every level of every frame from the
// full-size planes and makes the levels available. May be called again when the planes have
// changed. Serves the comm socket; DIE4 ends it early.
void generate_all_mipmaps();

// Fills the level `destination` from the level above it.
void gen_mipmap(mipmap_image* destination, mipmap_image* source);

void reset_mipmaps(); // back to the values at program start
