// The pyramid once more, slow and obvious: sample by sample, with a private row that is copied out.
#pragma once

#include <vector>

#include "bin/framebuffer/layout.h"

// Fills `destination` from `source` in `buffer`; bytes behind its end count as 0.
void model_mipmap(std::vector<unsigned char>& buffer, const mipmap_image& destination,
                  const mipmap_image& source);

// Every level of every frame of the present layout.
void model_all_mipmaps(std::vector<unsigned char>& buffer);
