// From full range to video range, in place, by the rules of colour_rules.h.
#pragma once

#include <cstddef>
#include <span>

#include "bin/framebuffer/kernel_choice.h"

// `count` must not be 0.
void jpeg_rescale_luma_to_16_235(unsigned char* p, size_t count);
void jpeg_rescale_chroma_to_16_240(unsigned char* p, size_t count);

// --- versions -----------------------------------------------------------------------------------

struct rescale_kernel {
    const char* name;
    processor_feature needs;
    void (*luma)(unsigned char* p, size_t count); // any count, also 0; any alignment
    void (*chroma)(unsigned char* p, size_t count);
};

std::span<const rescale_kernel> rescale_kernels();

#ifdef __x86_64__
void rescale_luma_avx2(unsigned char* p, size_t count);
void rescale_chroma_avx2(unsigned char* p, size_t count);
void rescale_luma_sse2(unsigned char* p, size_t count);
void rescale_chroma_sse2(unsigned char* p, size_t count);
#endif
