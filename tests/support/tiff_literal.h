// The drawing rules of the TIFF decoders in their plainest form, for comparison: every band is
// filled before its strip is read, every strip is read when it is asked for, and samples are
// converted one by one. The file is opened anew, beside the one that the process has open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct tiff_literal_options {
    unsigned char before = 0; // what the allocation holds at first
    size_t passes = ~size_t{0};
    size_t failing_mapping = 0; // the n-th mapping from the start fails; 0: none
    // What reads a strip: strip, target, size; bytes read. Empty: the library.
    std::function<int64_t(uint32_t, unsigned char*, int64_t)> read_strip = {};
};

struct tiff_literal_result {
    std::vector<unsigned char> allocation; // image_decoded_size bytes
    std::string told;                      // on standard error, the library's own lines left out
    std::vector<int> progress;             // percentages, 100 at the end included
};

// Needs an examined picture and its layout; reads the tag values, the image state and the layout.
tiff_literal_result draw_tiff_literally(const std::vector<unsigned char>& file,
                                        const tiff_literal_options& options = {});
