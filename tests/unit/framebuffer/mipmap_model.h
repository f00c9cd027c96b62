// A slow and obvious second version of the pyramid: sample by sample, each row in a buffer of its
// own that is copied at the end.
#pragma once

#include <vector>

#include "bin/framebuffer/layout.h"

// Fills `destination` from `source` in `buffer`; bytes behind the end of the buffer count as 0.
void model_mipmap(std::vector<unsigned char>& buffer, const mipmap_image& destination,
                  const mipmap_image& source);

// Every level of every frame of the current layout.
void model_all_mipmaps(std::vector<unsigned char>& buffer);
