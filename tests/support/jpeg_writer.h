// JPEG files made in the test: any colour space, sampling, block size and process that the library
// can write, and ways to damage them afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <vector>

#include <jpeglib.h>

namespace jpeg_writer {

using file_bytes = std::vector<unsigned char>;

struct factors {
    int h;
    int v;
};

// What to write. Samples are those of the stored components, at each component's own resolution.
struct picture {
    int width = 16;
    int height = 16;
    J_COLOR_SPACE colour_space = JCS_YCbCr;
    std::vector<factors> sampling = {{1, 1}, {1, 1}, {1, 1}}; // one for each component
    int block_size = 8;                                       // 1 to 16
    int quality = 90;
    bool progressive = false;
    bool arithmetic = false;
    bool separate_scans = false; // sequential, but one scan for each component
    unsigned restart_interval = 0;
    std::optional<bool> adobe_marker; // not set: as the library does for the colour space
    std::function<unsigned char(int component, int x, int y)> sample; // not set: waves and noise
};

file_bytes write(const picture& what);

// Short hands.
picture grey(int width, int height);
picture ycbcr(int width, int height, factors luma);
picture four(J_COLOR_SPACE colour_space, int width, int height, factors all);

// --- damage -------------------------------------------------------------------------------------

// Where the first marker 0xFF `code` of the header stands, or where the header's SOS stands when
// there is none before it. Fails the test program when the file holds neither.
size_t find_marker(const file_bytes& file, unsigned char code);
size_t find_frame_header(const file_bytes& file); // any SOF

void set_size(file_bytes& file, int width, int height);
void set_precision(file_bytes& file, int bits);
void set_sampling(file_bytes& file, int component, factors to);
void set_component_id(file_bytes& file, int component, unsigned char id);

file_bytes first_bytes(const file_bytes& file, size_t count);
void insert(file_bytes& file, size_t at, const file_bytes& what);
void insert_before_end(file_bytes& file, const file_bytes& what); // before the final EOI

// An Adobe marker segment with this transform code.
file_bytes adobe_segment(unsigned char transform);

// `count` scans without any data, each of ten bytes, that refine nothing in a progressive file.
file_bytes empty_scans(size_t count, unsigned char component_id = 1);

} // namespace jpeg_writer
