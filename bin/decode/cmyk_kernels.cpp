// Plain loops that compilers vectorise. All products and all sums of the RGB rule fit 16 bits, so
// every step is 16-bit arithmetic.
#include "bin/decode/cmyk_kernels.h"

#include <cstdint>

#include "bin/decode/colour_rules.h"
#include "common/for_each_processor.h"

namespace {

constexpr uint16_t scaled(uint16_t sample, uint16_t k)
{
    return divided_by_255(static_cast<uint16_t>(sample * k));
}

} // namespace

FOR_EACH_PROCESSOR void invert_and_darken_luma(unsigned char* __restrict samples,
                                               const unsigned char* __restrict k, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<unsigned char>(scaled(255 - samples[i], k[i]));
    }
}

FOR_EACH_PROCESSOR void invert_and_darken_chroma(unsigned char* __restrict samples,
                                                 const unsigned char* __restrict k, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        const auto c = static_cast<uint16_t>(255 - samples[i]);
        const bool below = c < 128;
        const auto distance = static_cast<uint16_t>(below ? 128 - c : c - 128);
        const uint16_t kept = scaled(distance, k[i]);
        samples[i] = static_cast<unsigned char>(below ? 128 - kept : 128 + kept);
    }
}

FOR_EACH_PROCESSOR void invert(unsigned char* samples, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<unsigned char>(~samples[i]);
    }
}

FOR_EACH_PROCESSOR void cmyk_to_yuv(unsigned char* __restrict c, unsigned char* __restrict m,
                                    unsigned char* __restrict y, const unsigned char* __restrict k,
                                    size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        const yuv_sample pixel =
            rgb_to_yuv(scaled(c[i], k[i]), scaled(m[i], k[i]), scaled(y[i], k[i]));
        c[i] = pixel.y;
        m[i] = pixel.u;
        y[i] = pixel.v;
    }
}
