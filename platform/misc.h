// Small services of the media-item platform that belong to no other module.
#pragma once

#include <cstdint>
#include <cstdio>

// A ratio of two signed numbers; negative numbers and a zero denominator are permitted.
struct int_rational {
    int64_t numerator;
    int64_t denominator;
};

// Writes one line per open descriptor of this process: its number and what it refers to.
void fd_debug_dump_open_files(FILE* out);

// Prepares the platform's 8-bit gamma 2.2 table. May be called any number of times.
void dac8_gamma22_init_do();

// Adam7 pass geometry (PNG specification): first row and row step of passes 1 to 7.
extern const uint8_t adam7_yo[7];
extern const uint8_t adam7_ystep[7];
