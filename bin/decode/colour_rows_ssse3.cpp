// Sixteen pixels a block. The last block, when it would not be full, is moved left over pixels that
// are already done.
//
// R and G of each pixel lie side by side in one register, B and a fourth byte in another; a
// multiply-add of neighbouring bytes gives 16-bit sums. One operand is signed: for chroma the
// factors, for luma the samples less 128. Without the offsets every sum stays in -32768..32767. The
// offsets are multiples of 256, so they can be added after the shift.
#include "bin/decode/colour_rows.h"

#ifdef __x86_64__

#include <algorithm>
#include <tmmintrin.h>

#include "bin/decode/colour_rules.h"

namespace {

constexpr size_t block = 16;

// Sixteen pixels. Beside each B sample there is alpha or zero.
struct colour_pairs {
    __m128i low_rg, low_b;
    __m128i high_rg, high_b;
};

TARGET_SSSE3 inline __m128i load(const unsigned char* from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

TARGET_SSSE3 inline void store(unsigned char* to, __m128i bytes)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), bytes);
}

// Two 8-bit factors in every 16 bits, the first one in the low byte.
TARGET_SSSE3 inline __m128i factors(int first, int second)
{
    return _mm_set1_epi16(static_cast<short>((first & 0xFF) | (second & 0xFF) << 8));
}

// From four registers of four pixels, each ordered as R G R G ... B x B x ...
TARGET_SSSE3 inline colour_pairs join(__m128i first, __m128i second, __m128i third, __m128i fourth)
{
    return {_mm_unpacklo_epi64(first, second), _mm_unpackhi_epi64(first, second),
            _mm_unpacklo_epi64(third, fourth), _mm_unpackhi_epi64(third, fourth)};
}

// The high bytes of the 16-bit sums, plus `offset`.
TARGET_SSSE3 inline __m128i high_bytes(__m128i low, __m128i high, int offset)
{
    return _mm_add_epi8(_mm_packs_epi16(_mm_srai_epi16(low, 8), _mm_srai_epi16(high, 8)),
                        _mm_set1_epi8(static_cast<char>(offset)));
}

TARGET_SSSE3 inline __m128i luma_sums(__m128i rg, __m128i b)
{
    const __m128i middle = _mm_set1_epi8(-128);
    return _mm_add_epi16(_mm_maddubs_epi16(factors(66, 129), _mm_xor_si128(rg, middle)),
                         _mm_maddubs_epi16(factors(25, 0), _mm_xor_si128(b, middle)));
}

TARGET_SSSE3 inline __m128i luma(const colour_pairs& pixels)
{
    constexpr int offset = 16 + (66 + 129 + 25) * 128 / 256;
    return high_bytes(luma_sums(pixels.low_rg, pixels.low_b),
                      luma_sums(pixels.high_rg, pixels.high_b), offset);
}

TARGET_SSSE3 inline __m128i chroma(const colour_pairs& pixels, __m128i of_rg, __m128i of_b)
{
    const __m128i low = _mm_add_epi16(_mm_maddubs_epi16(pixels.low_rg, of_rg),
                                      _mm_maddubs_epi16(pixels.low_b, of_b));
    const __m128i high = _mm_add_epi16(_mm_maddubs_epi16(pixels.high_rg, of_rg),
                                       _mm_maddubs_epi16(pixels.high_b, of_b));
    return high_bytes(low, high, 128);
}

TARGET_SSSE3 inline void store_colours(const colour_pairs& pixels, const sample_planes& to,
                                       size_t at)
{
    store(to.y + at, luma(pixels));
    store(to.u + at, chroma(pixels, factors(-38, -74), factors(112, 0)));
    store(to.v + at, chroma(pixels, factors(112, -94), factors(-18, 0)));
}

TARGET_SSSE3 inline void rgb_block(const unsigned char* pixels, const sample_planes& to, size_t at)
{
    const __m128i order = _mm_setr_epi8(0, 1, 3, 4, 6, 7, 9, 10, 2, -1, 5, -1, 8, -1, 11, -1);
    // The last load ends with the last pixel, so its four pixels are in the upper part.
    const __m128i last_order =
        _mm_setr_epi8(4, 5, 7, 8, 10, 11, 13, 14, 6, -1, 9, -1, 12, -1, 15, -1);
    const unsigned char* from = pixels + 3 * at;
    store_colours(join(_mm_shuffle_epi8(load(from), order),
                       _mm_shuffle_epi8(load(from + 12), order),
                       _mm_shuffle_epi8(load(from + 24), order),
                       _mm_shuffle_epi8(load(from + 32), last_order)),
                  to, at);
}

TARGET_SSSE3 inline void rgba_block(const unsigned char* pixels, const sample_planes& to, size_t at)
{
    const __m128i order = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
    const unsigned char* from = pixels + 4 * at;
    const colour_pairs pairs =
        join(_mm_shuffle_epi8(load(from), order), _mm_shuffle_epi8(load(from + 16), order),
             _mm_shuffle_epi8(load(from + 32), order), _mm_shuffle_epi8(load(from + 48), order));
    store_colours(pairs, to, at);
    store(to.a + at,
          _mm_packus_epi16(_mm_srli_epi16(pairs.low_b, 8), _mm_srli_epi16(pairs.high_b, 8)));
}

TARGET_SSSE3 inline void grey_alpha_block(const unsigned char* pixels, const sample_planes& to,
                                          size_t at)
{
    const __m128i low_byte = _mm_set1_epi16(0xFF);
    const __m128i factor = _mm_set1_epi16(static_cast<short>(luma_multiplier));
    const __m128i low = load(pixels + 2 * at);
    const __m128i high = load(pixels + 2 * at + 16);
    const __m128i grey = _mm_packus_epi16(_mm_mulhi_epu16(_mm_and_si128(low, low_byte), factor),
                                          _mm_mulhi_epu16(_mm_and_si128(high, low_byte), factor));
    store(to.y + at, _mm_add_epi8(grey, _mm_set1_epi8(16)));
    store(to.a + at, _mm_packus_epi16(_mm_srli_epi16(low, 8), _mm_srli_epi16(high, 8)));
}

TARGET_SSSE3 inline void yuva_block(const unsigned char* pixels, const sample_planes& to, size_t at)
{
    const __m128i order = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const unsigned char* from = pixels + 4 * at;
    const __m128i first = _mm_shuffle_epi8(load(from), order);
    const __m128i second = _mm_shuffle_epi8(load(from + 16), order);
    const __m128i third = _mm_shuffle_epi8(load(from + 32), order);
    const __m128i fourth = _mm_shuffle_epi8(load(from + 48), order);
    const __m128i low_yu = _mm_unpacklo_epi32(first, second);
    const __m128i high_yu = _mm_unpacklo_epi32(third, fourth);
    const __m128i low_va = _mm_unpackhi_epi32(first, second);
    const __m128i high_va = _mm_unpackhi_epi32(third, fourth);
    store(to.y + at, _mm_unpacklo_epi64(low_yu, high_yu));
    store(to.u + at, _mm_unpackhi_epi64(low_yu, high_yu));
    store(to.v + at, _mm_unpacklo_epi64(low_va, high_va));
    if (to.a != nullptr) {
        store(to.a + at, _mm_unpackhi_epi64(low_va, high_va));
    }
}

using block_function = void (*)(const unsigned char*, const sample_planes&, size_t);

template <block_function convert, colour_run shorter>
TARGET_SSSE3 void in_blocks(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    if (count < block) {
        shorter(pixels, count, to);
        return;
    }
    const sample_planes planes = to; // a copy that no store through a plane can change
    for (size_t i = 0; i < count; i += block) {
        convert(pixels, planes, std::min(i, count - block));
    }
}

} // namespace

TARGET_SSSE3 void rgb_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    in_blocks<rgb_block, rgb_run_portable>(pixels, count, to);
}

TARGET_SSSE3 void rgba_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    in_blocks<rgba_block, rgba_run_portable>(pixels, count, to);
}

TARGET_SSSE3 void grey_alpha_run_ssse3(const unsigned char* pixels, size_t count,
                                       const sample_planes& to)
{
    in_blocks<grey_alpha_block, grey_alpha_run_portable>(pixels, count, to);
}

TARGET_SSSE3 void yuva_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    in_blocks<yuva_block, yuva_run_portable>(pixels, count, to);
}

#endif
