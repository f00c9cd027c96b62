#include "bin/decode/rescale.h"

#include "bin/decode/rescale_kernels.h"
#include "bin/invariant.h"

namespace {

constexpr bool fixed_point_is_exact()
{
    for (unsigned x = 0; x < 256; ++x) {
        if ((x * luma_multiplier) >> 16 != x * 219 / 255 ||
            (x * chroma_multiplier) >> 16 != x * 224 / 255) {
            return false;
        }
    }
    return true;
}
static_assert(fixed_point_is_exact());

// Pieces of a constant length: compilers make vector code of the inner loop.
constexpr size_t piece = 64;

void luma_portable(unsigned char* p, size_t count)
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

void chroma_portable(unsigned char* p, size_t count)
{
    for (; count >= piece; p += piece, count -= piece) {
        for (size_t i = 0; i < piece; ++i) {
            // The shift rounds down: one more where that is away from zero.
            const int distance = p[i] - 128;
            const int rounded_down = (distance * static_cast<int>(chroma_multiplier)) >> 16;
            p[i] = static_cast<unsigned char>(128 + rounded_down + (distance < 0 ? 1 : 0));
        }
    }
    for (size_t i = 0; i < count; ++i) {
        p[i] = rescale_chroma_sample(p[i]);
    }
}

bool always()
{
    return true;
}

#if defined(__x86_64__)
bool has_avx2()
{
    return __builtin_cpu_supports("avx2") != 0;
}
#endif

constexpr rescale_kernel kernels[] = {
#if defined(__x86_64__)
    {"avx2", has_avx2, rescale_luma_avx2, rescale_chroma_avx2},
    {"sse2", always, rescale_luma_sse2, rescale_chroma_sse2},
#endif
    {"portable", always, luma_portable, chroma_portable},
};

} // namespace

std::span<const rescale_kernel> rescale_kernels()
{
    return kernels;
}

const rescale_kernel& best_rescale_kernel()
{
    for (const rescale_kernel& kernel : kernels) {
        if (kernel.runs_here()) {
            return kernel;
        }
    }
    return kernels[0]; // not reached: the last one runs everywhere
}

void jpeg_rescale_luma_to_16_235(unsigned char* p, size_t count)
{
    static const rescale_kernel& kernel = best_rescale_kernel();
    INVARIANT(count != 0, "c != (size_t)0");
    kernel.luma(p, count);
}

void jpeg_rescale_chroma_to_16_240(unsigned char* p, size_t count)
{
    static const rescale_kernel& kernel = best_rescale_kernel();
    INVARIANT(count != 0, "c != (size_t)0");
    kernel.chroma(p, count);
}
