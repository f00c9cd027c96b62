// Writes TIFF files tag by tag, valid or not.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

enum tiff_value_type : uint16_t { TIFF_VALUE_BYTE = 1, TIFF_VALUE_SHORT = 3, TIFF_VALUE_LONG = 4 };

struct tiff_tag {
    tiff_value_type type = TIFF_VALUE_SHORT;
    std::vector<uint32_t> values;
    uint32_t shared = 0; // instead of `values`: this many, stored at the first strip
};

struct tiff_spec {
    bool big_endian = false;
    std::map<uint16_t, tiff_tag> tags;
    std::vector<std::vector<unsigned char>> strips; // as stored; become tags 273 and 279 unless set

    void set_short(uint16_t tag, std::vector<uint32_t> values);
    void set_long(uint16_t tag, std::vector<uint32_t> values);
};

// An uncompressed picture of one zeroed strip, with the tags that every reader needs.
tiff_spec plain_tiff(uint32_t width, uint32_t height, uint32_t samples, uint32_t photometric);

std::vector<unsigned char> write_tiff(const tiff_spec& spec);
