// Makes system calls and calls of the codec libraries fail on demand. Linking this replaces them in
// the whole test program; without a script they behave normally.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

struct tiff; // the type behind libtiff's TIFF

namespace failing_calls {

// A counter counts down with each call, and the call that brings it to 0 fails. 0: no call fails.
struct script {
    int fdopen = 0;
    int calloc = 0;
    size_t max_calloc = SIZE_MAX; // larger requests fail
    int new_object = 0;           // new (std::nothrow) T
    int new_array = 0;            // new (std::nothrow) T[n]
    int read = 0;                 // fails with read_errno
    int read_errno = 0;
    int max_read = 0;              // bytes per read; 0: no limit
    int read_ends = 0;             // returns 0, as at the end of the file
    std::function<void()> on_read; // called in each read
    int lseek = 0;
    int webp_width = 0; // WebPGetFeatures reports a width of 0
    int webp_height = 0;
    int webp_init = 0; // WebPInitDecoderConfig
    int png_create_read_struct = 0;
    int png_create_info_struct = 0;
    int png_get_ihdr = 0;
    int png_destroy_read_struct = 0; // calls png_error
    uint32_t tiff_tag = 0;           // TIFFGetField does not know this tag ...
    uint16_t tiff_value = 0;         // ... yet stores this value, unless it is 0
    int tiff_samples = -1;           // the value of SamplesPerPixel, unless -1
    std::pair<uint16_t, uint16_t> tiff_factors = {0, 0}; // the chroma factors, unless 0
    int64_t seen_tiff_limit = 0;     // set by TIFFOpenOptionsSetMaxSingleMemAlloc
    bool tiff_no_strips = false;     // TIFFNumberOfStrips is 0
    bool tiff_no_scanline = false;   // TIFFScanlineSize is 0
    bool tiff_no_strip_size = false; // TIFFStripSize is 0
    int tiff_null_colour = -1;       // the colour map's pointer with this index is null
    // Called instead of TIFFReadEncodedStrip with strip, target and size; returns the bytes read.
    std::function<int64_t(uint32_t, unsigned char*, int64_t)> tiff_read_strip;
};

extern script plan;

// The original TIFFReadEncodedStrip, for use in scripts.
int64_t read_tiff_strip(tiff* image, uint32_t strip, unsigned char* to, int64_t size);

} // namespace failing_calls
