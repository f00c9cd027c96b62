// Sixteen samples per register. A multiply-add of neighbouring bytes with ones, from column 2k - 1
// and again from column 2k, sums to row(2k-1) + 2 row(2k) + row(2k+1); with twos it gives the
// middle row's part. No sum exceeds 4088. The last block, when it would not be full, is moved left
// over samples that are already done.
#include "bin/framebuffer/mipmap_filter.h"

#ifdef __x86_64__

#include <immintrin.h>

namespace {

constexpr size_t half_block = 16;
constexpr size_t block = 32;

TARGET_AVX2 inline __m256i row_part(const unsigned char* row, size_t k, __m256i weights)
{
    const auto* from = reinterpret_cast<const __m256i*>(row + 2 * k - 1);
    const auto* one_on = reinterpret_cast<const __m256i*>(row + 2 * k);
    return _mm256_add_epi16(_mm256_maddubs_epi16(_mm256_loadu_si256(from), weights),
                            _mm256_maddubs_epi16(_mm256_loadu_si256(one_on), weights));
}

// Samples k .. k + 15 as 16-bit numbers.
TARGET_AVX2 inline __m256i filtered(const source_rows& rows, size_t k)
{
    const __m256i ones = _mm256_set1_epi8(1);
    const __m256i twos = _mm256_set1_epi8(2);
    const __m256i outer =
        _mm256_add_epi16(row_part(rows.above, k, ones), row_part(rows.below, k, ones));
    const __m256i total = _mm256_add_epi16(outer, row_part(rows.middle, k, twos));
    return _mm256_srli_epi16(_mm256_add_epi16(total, _mm256_set1_epi16(8)), 4);
}

TARGET_AVX2 inline void halve_half_block(unsigned char* out, const source_rows& rows, size_t k)
{
    const __m256i wide = filtered(rows, k);
    const __m128i bytes =
        _mm_packus_epi16(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + k), bytes);
}

TARGET_AVX2 inline void halve_block(unsigned char* out, const source_rows& rows, size_t k)
{
    // Packing works on each 128-bit half, so the quarters have to be reordered.
    const __m256i mixed = _mm256_packus_epi16(filtered(rows, k), filtered(rows, k + half_block));
    const __m256i bytes = _mm256_permute4x64_epi64(mixed, _MM_SHUFFLE(3, 1, 2, 0));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + k), bytes);
}

} // namespace

TARGET_AVX2 void halve_row_avx2(unsigned char* out, const source_rows& rows, size_t last)
{
    const source_rows in = rows; // a copy that no store through `out` can change
    if (last < half_block) {
        halve_row_portable(out, in, last);
        return;
    }
    if (last < block) {
        halve_half_block(out, in, 1);
        halve_half_block(out, in, last - half_block + 1);
        return;
    }
    size_t k = 1;
    for (; k + block - 1 <= last; k += block) { // a cache line of each row
        _mm_prefetch(in.next_middle + 2 * k, _MM_HINT_T0);
        _mm_prefetch(in.next_below + 2 * k, _MM_HINT_T0);
        halve_block(out, in, k);
    }
    if (k <= last) {
        halve_block(out, in, last - block + 1);
    }
}

#endif
