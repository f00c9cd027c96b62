// Calls of the system and of the codec libraries that a test wants to see fail. Linking this
// replaces them for the whole test program; without a script they behave as ever.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

struct tiff; // what libtiff calls TIFF

namespace failing_calls {

// Counters count down with each call; the call that reaches 0 fails. 0: never.
struct script {
    int fdopen = 0;
    int calloc = 0;
    size_t largest_calloc = SIZE_MAX; // larger requests fail
    int new_object = 0;               // new (std::nothrow) T
    int new_array = 0;                // new (std::nothrow) T[n]
    int read = 0;                     // fails with errno
    int read_errno = 0;
    int read_most = 0;             // bytes that one read gives at most; 0: no limit
    int read_ends = 0;             // finds the end of the file
    std::function<void()> on_read; // called in each read
    int lseek = 0;
    int webp_width = 0; // WebPGetFeatures reports a width of 0
    int webp_height = 0;
    int webp_init = 0; // WebPInitDecoderConfig
    int png_create_read_struct = 0;
    int png_create_info_struct = 0;
    int png_get_ihdr = 0;
    int png_destroy_read_struct = 0; // jumps to png_error
    uint32_t tiff_tag = 0;           // TIFFGetField does not know this tag ...
    uint16_t tiff_value = 0;         // ... yet stores this value, unless it is 0
    int tiff_samples = -1;           // what SamplesPerPixel reads, unless -1
    std::pair<uint16_t, uint16_t> tiff_factors = {0, 0}; // what the chroma factors read, unless 0
    int64_t seen_tiff_limit = 0;     // what TIFFOpenOptionsSetMaxSingleMemAlloc was told
    bool tiff_no_strips = false;     // TIFFNumberOfStrips is 0
    bool tiff_no_scanline = false;   // TIFFScanlineSize is 0
    bool tiff_no_strip_size = false; // TIFFStripSize is 0
    int tiff_null_colour = -1;       // the colormap's pointer of that number is null
    // In place of TIFFReadEncodedStrip: strip, target, size; bytes read.
    std::function<int64_t(uint32_t, unsigned char*, int64_t)> tiff_read_strip;
};

extern script plan;

// The true TIFFReadEncodedStrip, for the use of a script.
int64_t read_tiff_strip(tiff* image, uint32_t strip, unsigned char* to, int64_t size);

} // namespace failing_calls
