// Eight samples per register. The bytes of 16 source columns are split into even and odd columns of
// 16-bit numbers, each summed over the three rows; no sum exceeds 4088. The odd column to the left
// of the first sample is carried over from the previous registers. The last block, when it would
// not be full, is moved left over samples that are already done.
#include "bin/framebuffer/mipmap_filter.h"

#ifdef __x86_64__

#include <emmintrin.h>

namespace {

constexpr size_t half_block = 8;
constexpr size_t block = 16;

struct column_sums {
    __m128i even; // C(2k)
    __m128i odd;  // C(2k+1)
};

inline __m128i load(const unsigned char* from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

// above + 2 middle + below
inline __m128i weighted(__m128i above, __m128i middle, __m128i below)
{
    return _mm_add_epi16(_mm_add_epi16(above, below), _mm_add_epi16(middle, middle));
}

inline column_sums sum_columns(const source_rows& rows, size_t column)
{
    const __m128i low_bytes = _mm_set1_epi16(0xFF);
    const __m128i above = load(rows.above + column);
    const __m128i middle = load(rows.middle + column);
    const __m128i below = load(rows.below + column);
    return {
        weighted(_mm_and_si128(above, low_bytes), _mm_and_si128(middle, low_bytes),
                 _mm_and_si128(below, low_bytes)),
        weighted(_mm_srli_epi16(above, 8), _mm_srli_epi16(middle, 8), _mm_srli_epi16(below, 8))};
}

// Eight samples as 16-bit numbers. `before` holds the odd sums to the left; only the topmost is
// used.
inline __m128i filtered(const column_sums& sums, __m128i before)
{
    const __m128i left = _mm_or_si128(_mm_slli_si128(sums.odd, 2), _mm_srli_si128(before, 14));
    const __m128i centre = _mm_add_epi16(sums.even, sums.even);
    const __m128i total = _mm_add_epi16(_mm_add_epi16(left, sums.odd), centre);
    return _mm_srli_epi16(_mm_add_epi16(total, _mm_set1_epi16(8)), 4);
}

// C(2k-1) as the topmost number.
inline __m128i sum_before(const source_rows& rows, size_t k)
{
    const size_t x = 2 * k - 1;
    const int sum = rows.above[x] + 2 * rows.middle[x] + rows.below[x];
    return _mm_insert_epi16(_mm_setzero_si128(), static_cast<short>(sum), 7);
}

// out[k] .. out[k + 15]; returns the `before` of the block to the right.
inline __m128i halve_block(unsigned char* out, const source_rows& rows, size_t k, __m128i before)
{
    const column_sums low = sum_columns(rows, 2 * k);
    const column_sums high = sum_columns(rows, 2 * (k + half_block));
    const __m128i bytes = _mm_packus_epi16(filtered(low, before), filtered(high, low.odd));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + k), bytes);
    return high.odd;
}

} // namespace

void halve_row_sse2(unsigned char* out, const source_rows& rows, size_t last)
{
    const source_rows in = rows; // a copy that no store through `out` can change
    if (last < block) {
        halve_row_portable(out, in, last);
        return;
    }
    __m128i before = sum_before(in, 1);
    size_t k = 1;
    for (; k + 2 * block - 1 <= last; k += 2 * block) { // a cache line of each row
        _mm_prefetch(in.next_middle + 2 * k, _MM_HINT_T0);
        _mm_prefetch(in.next_below + 2 * k, _MM_HINT_T0);
        before = halve_block(out, in, k, before);
        before = halve_block(out, in, k + block, before);
    }
    if (k + block - 1 <= last) {
        halve_block(out, in, k, before);
        k += block;
    }
    if (k <= last) {
        const size_t moved = last - block + 1;
        halve_block(out, in, moved, sum_before(in, moved));
    }
}

#endif
