// Even and odd samples are widened separately, by mask and shift. This avoids shuffles, which limit
// such code on most processors.
#include "bin/decode/rescale.h"

#ifdef __x86_64__

#include <immintrin.h>

#include "bin/decode/colour_rules.h"

namespace {

void luma_rest(unsigned char* p, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        p[i] = rescale_luma_sample(p[i]);
    }
}

void chroma_rest(unsigned char* p, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        p[i] = rescale_chroma_sample(p[i]);
    }
}

// --- AVX2: 32 samples ---------------------------------------------------------------------------

// Multiplies every byte by the 16-bit factor and returns the high halves of the products as bytes.
TARGET_AVX2 inline __m256i scale(__m256i bytes, __m256i factor)
{
    const __m256i even = _mm256_and_si256(bytes, _mm256_set1_epi16(0xFF));
    const __m256i odd = _mm256_srli_epi16(bytes, 8);
    return _mm256_or_si256(_mm256_mulhi_epu16(even, factor),
                           _mm256_slli_epi16(_mm256_mulhi_epu16(odd, factor), 8));
}

TARGET_AVX2 inline __m256i luma(__m256i y)
{
    const __m256i factor = _mm256_set1_epi16(static_cast<short>(luma_multiplier));
    return _mm256_add_epi8(scale(y, factor), _mm256_set1_epi8(16));
}

TARGET_AVX2 inline __m256i chroma(__m256i c)
{
    const __m256i factor = _mm256_set1_epi16(static_cast<short>(chroma_multiplier));
    const __m256i middle = _mm256_set1_epi8(-128);
    const __m256i distance = _mm256_add_epi8(c, middle);
    const __m256i scaled = scale(_mm256_abs_epi8(distance), factor);
    return _mm256_add_epi8(_mm256_sign_epi8(scaled, distance), middle);
}

// --- SSE2: 16 samples ---------------------------------------------------------------------------

inline __m128i scale(__m128i bytes, __m128i factor)
{
    const __m128i even = _mm_and_si128(bytes, _mm_set1_epi16(0xFF));
    const __m128i odd = _mm_srli_epi16(bytes, 8);
    return _mm_or_si128(_mm_mulhi_epu16(even, factor),
                        _mm_slli_epi16(_mm_mulhi_epu16(odd, factor), 8));
}

inline __m128i luma(__m128i y)
{
    const __m128i factor = _mm_set1_epi16(static_cast<short>(luma_multiplier));
    return _mm_add_epi8(scale(y, factor), _mm_set1_epi8(16));
}

inline __m128i chroma(__m128i c)
{
    const __m128i factor = _mm_set1_epi16(static_cast<short>(chroma_multiplier));
    const __m128i middle = _mm_set1_epi8(-128);
    const __m128i distance = _mm_add_epi8(c, middle);
    const __m128i sign = _mm_cmpgt_epi8(_mm_setzero_si128(), distance); // all ones where negative
    const __m128i magnitude = _mm_sub_epi8(_mm_xor_si128(distance, sign), sign);
    const __m128i scaled = scale(magnitude, factor);
    return _mm_add_epi8(_mm_sub_epi8(_mm_xor_si128(scaled, sign), sign), middle);
}

__m256i* wide(unsigned char* p)
{
    return reinterpret_cast<__m256i*>(p);
}

__m128i* narrow(unsigned char* p)
{
    return reinterpret_cast<__m128i*>(p);
}

} // namespace

TARGET_AVX2 void rescale_luma_avx2(unsigned char* p, size_t count)
{
    for (; count >= 64; p += 64, count -= 64) {
        const __m256i first = _mm256_loadu_si256(wide(p));
        const __m256i second = _mm256_loadu_si256(wide(p + 32));
        _mm256_storeu_si256(wide(p), luma(first));
        _mm256_storeu_si256(wide(p + 32), luma(second));
    }
    luma_rest(p, count);
}

TARGET_AVX2 void rescale_chroma_avx2(unsigned char* p, size_t count)
{
    for (; count >= 64; p += 64, count -= 64) {
        const __m256i first = _mm256_loadu_si256(wide(p));
        const __m256i second = _mm256_loadu_si256(wide(p + 32));
        _mm256_storeu_si256(wide(p), chroma(first));
        _mm256_storeu_si256(wide(p + 32), chroma(second));
    }
    chroma_rest(p, count);
}

void rescale_luma_sse2(unsigned char* p, size_t count)
{
    for (; count >= 16; p += 16, count -= 16) {
        _mm_storeu_si128(narrow(p), luma(_mm_loadu_si128(narrow(p))));
    }
    luma_rest(p, count);
}

void rescale_chroma_sse2(unsigned char* p, size_t count)
{
    for (; count >= 16; p += 16, count -= 16) {
        _mm_storeu_si128(narrow(p), chroma(_mm_loadu_si128(narrow(p))));
    }
    chroma_rest(p, count);
}

#endif
