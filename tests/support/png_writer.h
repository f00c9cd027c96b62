// Writes PNG files chunk by chunk, valid or not.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct png_chunk {
    std::string name;
    std::vector<unsigned char> data = {};
};

struct png_spec {
    uint32_t width = 1;
    uint32_t height = 1;
    uint8_t depth = 8;
    uint8_t colour_type = 2;
    uint8_t compression = 0;
    uint8_t filter = 0;
    uint8_t interlace = 0;
    std::vector<png_chunk> chunks = {}; // between the header and the image data
    // The image data before compression: all rows of all passes, each after its filter byte.
    std::vector<unsigned char> rows = {};
};

std::vector<unsigned char> png_signature();
void append_png_chunk(std::vector<unsigned char>& file,
                      const png_chunk& chunk);               // adds the checksum
std::vector<unsigned char> png_header(const png_spec& spec); // data of IHDR
std::vector<unsigned char> write_png(const png_spec& spec);
