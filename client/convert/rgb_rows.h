// Rows of a picture as packed RGB or RGBA, full range.
#pragma once

#include <cstdint>
#include <vector>

#include "client/stillimage_client.h"

// Converts by BT.601 from limited to full range, rounded to the nearest. A chroma sample applies to
// all pixels that share it.
class rgb_rows {
public:
    // The picture has passed can_convert() and outlives this object.
    explicit rgb_rows(const stillimage_picture& picture);

    // Writes row `row` of the picture to `to`, with `channels` (3 or 4) bytes a pixel. The fourth
    // is straight alpha, 255 if the picture has none. Allocates no memory.
    void put(uint32_t row, uint32_t channels, uint8_t* to);

private:
    const uint8_t* chroma_row(int plane, uint32_t row, std::vector<uint8_t>& spread) const;

    const stillimage_picture& picture_;
    std::vector<uint8_t> u_; // one row, a sample for each pixel
    std::vector<uint8_t> v_;
    std::vector<uint8_t> red_;
    std::vector<uint8_t> green_;
    std::vector<uint8_t> blue_;
    std::vector<uint8_t> opaque_; // a row of alpha for a picture without alpha
};
