// Writes JPEG files of any colour space, sampling, block size and coding process that the library
// supports, and damages them.
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

// The picture to write. Samples are those of the stored components, at each component's resolution.
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
    std::optional<bool> adobe_marker; // not set: the library's default for the colour space
    std::function<unsigned char(int component, int x, int y)> sample; // not set: waves and noise
};

file_bytes write(const picture& what);

// Pictures of common kinds.
picture grey(int width, int height);
picture ycbcr(int width, int height, factors luma);
picture four(J_COLOR_SPACE colour_space, int width, int height, factors all);

// --- damage -------------------------------------------------------------------------------------

// The position of the first marker 0xFF `code` of the header, or that of the first SOS when the
// marker does not come before it. Aborts the test program when the file has neither.
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

// `count` scans of a progressive file without entropy-coded data, ten bytes each.
file_bytes empty_scans(size_t count, unsigned char component_id = 1);

} // namespace jpeg_writer
