#include "bin/decode/rescale.h"

#include "bin/decode/colour_rules.h"
#include "bin/invariant.h"

namespace {

// Pieces of a constant length, so that compilers vectorise the inner loop.
constexpr size_t piece = 64;

void rescale_luma_portable(unsigned char* p, size_t count)
{
    for (; count >= piece; p += piece, count -= piece) {
        for (size_t i = 0; i < piece; ++i) {
            p[i] = static_cast<unsigned char>(((p[i] * luma_multiplier) >> 16) + 16);
        }
    }
    for (size_t i = 0; i < count; ++i) {
        p[i] = rescale_luma_sample(p[i]);
    }
}

void rescale_chroma_portable(unsigned char* p, size_t count)
{
    for (; count >= piece; p += piece, count -= piece) {
        for (size_t i = 0; i < piece; ++i) {
            // The shift rounds down; negative values need one more to round toward zero.
            const int distance = p[i] - 128;
            const int rounded_down = (distance * static_cast<int>(chroma_multiplier)) >> 16;
            p[i] = static_cast<unsigned char>(128 + rounded_down + (distance < 0 ? 1 : 0));
        }
    }
    for (size_t i = 0; i < count; ++i) {
        p[i] = rescale_chroma_sample(p[i]);
    }
}

constexpr rescale_kernel kernels[] = {
#ifdef __x86_64__
    {"avx2", processor_feature::AVX2, rescale_luma_avx2, rescale_chroma_avx2},
    {"sse2", processor_feature::NONE, rescale_luma_sse2, rescale_chroma_sse2}, // on every x86-64
#endif
    {"portable", processor_feature::NONE, rescale_luma_portable, rescale_chroma_portable},
};

} // namespace

std::span<const rescale_kernel> rescale_kernels()
{
    return kernels;
}

void jpeg_rescale_luma_to_16_235(unsigned char* p, size_t count)
{
    static const rescale_kernel& kernel = best_version(rescale_kernels());
    INVARIANT(count != 0, "c != (size_t)0");
    kernel.luma(p, count);
}

void jpeg_rescale_chroma_to_16_240(unsigned char* p, size_t count)
{
    static const rescale_kernel& kernel = best_version(rescale_kernels());
    INVARIANT(count != 0, "c != (size_t)0");
    kernel.chroma(p, count);
}
