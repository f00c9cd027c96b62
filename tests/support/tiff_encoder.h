// Valid TIFF files written by the library, with any compression, byte order and plane arrangement
// that it supports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct encoded_tiff {
    uint32_t width = 16;
    uint32_t height = 16;
    uint16_t bits = 8;
    uint16_t samples = 3;
    uint16_t photometric = 2;
    uint16_t planes = 1; // 1: interleaved, 2: separate
    uint16_t compression = 5;
    uint16_t predictor = 1;
    uint32_t rows_per_strip = 16;
    const char* mode = "wl";                // "wb": big-endian, "w8": 64-bit offsets
    unsigned seed = 1;                      // of the samples
    std::vector<unsigned char> pixels = {}; // rows as stored; empty: noise from the seed
};

// Pseudo-random bytes, the same for the same seed.
std::vector<unsigned char> noise_bytes(size_t count, unsigned seed);

// The file; empty when the library cannot write it.
std::vector<unsigned char> encode_tiff(const encoded_tiff& picture);
