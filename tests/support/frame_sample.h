// A worker's frame in plain memory: a scanline record, planes and the message that announces them.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "client/stillimage_client.h"
#include "wire/protocol.h"

struct sample_shape {
    uint32_t full_width = 100;
    uint32_t full_height = 70;
    int level = 0; // the size is halved this often, rounded up
    unsigned x_shift = 1;
    unsigned y_shift = 1;
    bool chroma = true;
    bool alpha = false;
    uint32_t stride_multiple = 16;
    bool overlapping = false; // all planes at offset 0, of zeros
};

struct frame_sample {
    explicit frame_sample(const sample_shape& shape = {});

    // A little-endian number of `size` bytes in the record.
    void put(size_t at, size_t size, uint64_t value);
    uint64_t get(size_t at, size_t size) const;

    unsigned char* record() { return area.data() + message.scanline_offset; }
    const unsigned char* record() const { return area.data() + message.scanline_offset; }

    std::vector<unsigned char> area; // the planes, then the scanline record's area of 197 bytes
    std::array<uint64_t, STILLIMAGE_PLANES> offsets = {};
    std::array<uint64_t, STILLIMAGE_PLANES> strides = {};
    uint32_t width = 0; // of the level
    uint32_t height = 0;
    comm_protocol::frame message;
};
