// WebP: reads the whole file into memory, examines its bitstream features, and frees it.
#pragma once

#include <cstdint>

#include <webp/decode.h>

// The bytes of the file (allocated with new[]), or null, and their number. Written by this unit.
extern uint8_t* webp_image;
extern uint64_t webp_size;
extern WebPBitstreamFeatures webp_bf_features;

// The decoder's configuration. While webp_deccfg_init is set, its output buffer must be freed.
// Written by the WebP decoder, freed here.
extern WebPDecoderConfig webp_deccfg;
extern bool webp_deccfg_init;

// Returns 0 with the bytes in memory and the image state set; 1 with everything freed, after a
// message. When a picture is open already, prints a message, changes nothing and returns 1.
int examine_webp_file();

// Both accept state that was never set up, and may run twice.
void free_all_webp_raw(); // the file's bytes
void free_all_webp();     // the bytes and the decoder's output

void reset_webp(); // frees, and restores the values at program start
