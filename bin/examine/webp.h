// WebP: reading the whole file into memory, its bitstream's features, and the clean-up.
#pragma once

#include <cstdint>

#include <webp/decode.h>

// The file's bytes (from new[]), or null, and their number. Written by this unit.
extern uint8_t* webp_image;
extern uint64_t webp_size;
extern WebPBitstreamFeatures webp_bf_features;

// The decoder's configuration; while webp_deccfg_init is set, its output buffer is to be freed.
// Written by the WebP decoder, released here.
extern WebPDecoderConfig webp_deccfg;
extern bool webp_deccfg_init;

// 0 with the bytes in memory and the image state set; 1 with everything freed and a message
// printed. When a picture is open already: a message, 1, and nothing touched.
int examine_webp_file();

// Both may be called at any time and twice.
void free_all_webp_raw(); // the file's bytes
void free_all_webp();     // the bytes and the decoder's output

void reset_webp(); // frees, and goes back to the values at program start
