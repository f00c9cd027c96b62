// Rows of a served picture as packed RGB or RGBA, full range.
#pragma once

#include <cstdint>
#include <vector>

#include "client/stillimage_client.h"

// BT.601, limited to full range, to the nearest; each chroma sample stands for all the pixels that
// share it.
class rgb_rows {
public:
    // The picture passes can_convert() and outlives this.
    explicit rgb_rows(const stillimage_picture& picture);

    // Row `row` of the picture as `channels` (3 or 4) bytes a pixel; the fourth is straight alpha, 255
    // when the picture has none. No memory is asked for.
    void put(uint32_t row, uint32_t channels, uint8_t* to);

private:
    const uint8_t* chroma_row(int plane, uint32_t row, std::vector<uint8_t>& spread) const;

    const stillimage_picture& picture_;
    std::vector<uint8_t> u_; // one row, a sample for each pixel
    std::vector<uint8_t> v_;
    std::vector<uint8_t> red_;
    std::vector<uint8_t> green_;
    std::vector<uint8_t> blue_;
    std::vector<uint8_t> opaque_; // a row of alpha for a picture without
};
