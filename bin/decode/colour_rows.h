// From interleaved pixels to planes, a run of pixels at a time.
//
// Any count, any alignment. Exactly `count` pixels are read and `count` samples are written to each
// plane, some of them more than once. Pixels and planes do not overlap. All versions follow the
// rules of colour_rules.h to the byte.
#pragma once

#include <cstddef>
#include <span>

#include "bin/framebuffer/kernel_choice.h"

// Where a run of samples goes. A plane that the conversion does not write may be null.
struct sample_planes {
    unsigned char* y;
    unsigned char* u;
    unsigned char* v;
    unsigned char* a;
};

using colour_run = void (*)(const unsigned char* pixels, size_t count, const sample_planes& to);

void rgb_to_planes(const unsigned char* rgb, size_t count, const sample_planes& to);

// Alpha is copied; colour is not multiplied by it.
void rgba_to_planes(const unsigned char* rgba, size_t count, const sample_planes& to);

// Full-range grey to Y in video range. `count` must not be 0.
void grey_to_planes(const unsigned char* grey, size_t count, const sample_planes& to);

// Full-range grey to Y in video range, alpha copied. U and V are not written.
void grey_alpha_to_planes(const unsigned char* grey_alpha, size_t count, const sample_planes& to);

// Deinterleaves converted pixels: Y, U, V, A of one byte each. Without an A plane alpha is left
// out.
void yuva_to_planes(const unsigned char* yuva, size_t count, const sample_planes& to);

// --- palettes -----------------------------------------------------------------------------------

struct packed_yuva {
    unsigned char y, u, v, a;
};
static_assert(sizeof(packed_yuva) == 4);

// The palette of the picture in video range, by index. Written by the PNG and TIFF decoders before
// they read rows.
extern packed_yuva palette_colours[256];

// Looks every index up in palette_colours. A is not written.
void palette_to_planes(const unsigned char* indices, size_t count, const sample_planes& to);

// --- versions -----------------------------------------------------------------------------------

struct colour_kernel {
    const char* name;
    processor_feature needs;
    colour_run rgb;
    colour_run rgba;
    colour_run grey_alpha;
    colour_run yuva;
};

std::span<const colour_kernel> colour_kernels();

void rgb_run_portable(const unsigned char* pixels, size_t count, const sample_planes& to);
void rgba_run_portable(const unsigned char* pixels, size_t count, const sample_planes& to);
void grey_alpha_run_portable(const unsigned char* pixels, size_t count, const sample_planes& to);
void yuva_run_portable(const unsigned char* pixels, size_t count, const sample_planes& to);

#ifdef __x86_64__
void rgb_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to);
void rgba_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to);
void grey_alpha_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to);
void yuva_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to);

void rgb_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to);
void rgba_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to);
void grey_alpha_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to);
void yuva_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to);
#endif
