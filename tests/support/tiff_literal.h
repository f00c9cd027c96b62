// A plain implementation of the TIFF decoders, for comparison: every band is filled before its
// strip is read, strips are read as they are needed, and samples are converted one by one. It opens
// the file a second time, independently of the decoder under test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct tiff_literal_options {
    unsigned char before = 0; // initial contents of the allocation
    size_t passes = ~size_t{0};
    size_t failing_mapping = 0; // the n-th mapping from the start fails; 0: none
    // Reads a strip: receives strip, target and size, returns the bytes read. Empty: the library.
    std::function<int64_t(uint32_t, unsigned char*, int64_t)> read_strip = {};
};

struct tiff_literal_result {
    std::vector<unsigned char> allocation; // image_decoded_size bytes
    std::string printed;                   // standard error, without the library's own lines
    std::vector<int> progress;             // percentages, including the final 100
};

// Reads the tag values, the image state and the layout of an examined picture.
tiff_literal_result draw_tiff_literally(const std::vector<unsigned char>& file,
                                        const tiff_literal_options& options = {});
