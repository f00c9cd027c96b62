// The versions of the rescale rules; all give the same bytes.
#pragma once

#include <cstddef>
#include <span>

struct rescale_kernel {
    const char* name;
    bool (*runs_here)();
    void (*luma)(unsigned char* p, size_t count); // any count, 0 included; any alignment
    void (*chroma)(unsigned char* p, size_t count);
};

// Best first; the last one runs everywhere.
std::span<const rescale_kernel> rescale_kernels();

const rescale_kernel& best_rescale_kernel(); // the first that runs on this machine

// One sample, by the rules of rescale.h.
constexpr unsigned char rescale_luma_sample(unsigned char y)
{
    return static_cast<unsigned char>(y * 219 / 255 + 16);
}

constexpr unsigned char rescale_chroma_sample(unsigned char c)
{
    return static_cast<unsigned char>((c - 128) * 224 / 255 + 128);
}

// Fixed point, exact for every sample: x * 219 / 255 is the high half of x * 56284, and x * 224 /
// 255 that of x * 57569, for x in 0 .. 255.
inline constexpr unsigned luma_multiplier = 56284;
inline constexpr unsigned chroma_multiplier = 57569;

void rescale_luma_avx2(unsigned char* p, size_t count);
void rescale_chroma_avx2(unsigned char* p, size_t count);
void rescale_luma_sse2(unsigned char* p, size_t count);
void rescale_chroma_sse2(unsigned char* p, size_t count);
