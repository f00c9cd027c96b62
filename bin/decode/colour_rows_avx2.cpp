// The arithmetic of the SSSE3 version on 32 pixels. The lower half of every register holds pixels
// of the first sixteen and the upper half pixels of the last sixteen. Packing works on each half,
// so the samples stay in order.
#include "bin/decode/colour_rows.h"

#ifdef __x86_64__

#include <algorithm>
#include <immintrin.h>

#include "bin/decode/colour_rules.h"

namespace {

constexpr size_t block = 32;

// 32 pixels. Beside each B sample there is alpha or zero.
struct colour_pairs {
    __m256i low_rg, low_b;
    __m256i high_rg, high_b;
};

TARGET_AVX2 inline __m128i load(const unsigned char* from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

// Loads the lower half from `from` and the upper half from `distance` bytes behind it.
TARGET_AVX2 inline __m256i load_halves(const unsigned char* from, size_t distance)
{
    return _mm256_inserti128_si256(_mm256_castsi128_si256(load(from)), load(from + distance), 1);
}

// The same 16 bytes in both halves.
TARGET_AVX2 inline __m256i both(__m128i half)
{
    return _mm256_broadcastsi128_si256(half);
}

TARGET_AVX2 inline void store(unsigned char* to, __m256i bytes)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), bytes);
}

// Two 8-bit factors in every 16 bits, the first one in the low byte.
TARGET_AVX2 inline __m256i factors(int first, int second)
{
    return _mm256_set1_epi16(static_cast<short>((first & 0xFF) | (second & 0xFF) << 8));
}

// From four registers of twice four pixels, each half ordered as R G R G ... B x B x ...
TARGET_AVX2 inline colour_pairs join(__m256i first, __m256i second, __m256i third, __m256i fourth)
{
    return {_mm256_unpacklo_epi64(first, second), _mm256_unpackhi_epi64(first, second),
            _mm256_unpacklo_epi64(third, fourth), _mm256_unpackhi_epi64(third, fourth)};
}

// The high bytes of the 16-bit sums, plus `offset`.
TARGET_AVX2 inline __m256i high_bytes(__m256i low, __m256i high, int offset)
{
    return _mm256_add_epi8(
        _mm256_packs_epi16(_mm256_srai_epi16(low, 8), _mm256_srai_epi16(high, 8)),
        _mm256_set1_epi8(static_cast<char>(offset)));
}

TARGET_AVX2 inline __m256i luma_sums(__m256i rg, __m256i b)
{
    const __m256i middle = _mm256_set1_epi8(-128);
    return _mm256_add_epi16(_mm256_maddubs_epi16(factors(66, 129), _mm256_xor_si256(rg, middle)),
                            _mm256_maddubs_epi16(factors(25, 0), _mm256_xor_si256(b, middle)));
}

TARGET_AVX2 inline __m256i luma(const colour_pairs& pixels)
{
    constexpr int offset = 16 + (66 + 129 + 25) * 128 / 256;
    return high_bytes(luma_sums(pixels.low_rg, pixels.low_b),
                      luma_sums(pixels.high_rg, pixels.high_b), offset);
}

TARGET_AVX2 inline __m256i chroma(const colour_pairs& pixels, __m256i of_rg, __m256i of_b)
{
    const __m256i low = _mm256_add_epi16(_mm256_maddubs_epi16(pixels.low_rg, of_rg),
                                         _mm256_maddubs_epi16(pixels.low_b, of_b));
    const __m256i high = _mm256_add_epi16(_mm256_maddubs_epi16(pixels.high_rg, of_rg),
                                          _mm256_maddubs_epi16(pixels.high_b, of_b));
    return high_bytes(low, high, 128);
}

TARGET_AVX2 inline void store_colours(const colour_pairs& pixels, const sample_planes& to,
                                      size_t at)
{
    store(to.y + at, luma(pixels));
    store(to.u + at, chroma(pixels, factors(-38, -74), factors(112, 0)));
    store(to.v + at, chroma(pixels, factors(112, -94), factors(-18, 0)));
}

TARGET_AVX2 inline void rgb_block(const unsigned char* pixels, const sample_planes& to, size_t at)
{
    constexpr size_t half = size_t{16} * 3;
    const __m256i order = both(_mm_setr_epi8(0, 1, 3, 4, 6, 7, 9, 10, 2, -1, 5, -1, 8, -1, 11, -1));
    // The last load ends with the last pixel, so its four pixels are in the upper part of each
    // half.
    const __m256i last_order =
        both(_mm_setr_epi8(4, 5, 7, 8, 10, 11, 13, 14, 6, -1, 9, -1, 12, -1, 15, -1));
    const unsigned char* from = pixels + 3 * at;
    store_colours(join(_mm256_shuffle_epi8(load_halves(from, half), order),
                       _mm256_shuffle_epi8(load_halves(from + 12, half), order),
                       _mm256_shuffle_epi8(load_halves(from + 24, half), order),
                       _mm256_shuffle_epi8(load_halves(from + 32, half), last_order)),
                  to, at);
}

TARGET_AVX2 inline void rgba_block(const unsigned char* pixels, const sample_planes& to, size_t at)
{
    constexpr size_t half = size_t{16} * 4;
    const __m256i order = both(_mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15));
    const unsigned char* from = pixels + 4 * at;
    const colour_pairs pairs = join(_mm256_shuffle_epi8(load_halves(from, half), order),
                                    _mm256_shuffle_epi8(load_halves(from + 16, half), order),
                                    _mm256_shuffle_epi8(load_halves(from + 32, half), order),
                                    _mm256_shuffle_epi8(load_halves(from + 48, half), order));
    store_colours(pairs, to, at);
    store(to.a + at, _mm256_packus_epi16(_mm256_srli_epi16(pairs.low_b, 8),
                                         _mm256_srli_epi16(pairs.high_b, 8)));
}

TARGET_AVX2 inline void grey_alpha_block(const unsigned char* pixels, const sample_planes& to,
                                         size_t at)
{
    constexpr size_t half = size_t{16} * 2;
    const __m256i low_byte = _mm256_set1_epi16(0xFF);
    const __m256i factor = _mm256_set1_epi16(static_cast<short>(luma_multiplier));
    const __m256i low = load_halves(pixels + 2 * at, half);
    const __m256i high = load_halves(pixels + 2 * at + 16, half);
    const __m256i grey =
        _mm256_packus_epi16(_mm256_mulhi_epu16(_mm256_and_si256(low, low_byte), factor),
                            _mm256_mulhi_epu16(_mm256_and_si256(high, low_byte), factor));
    store(to.y + at, _mm256_add_epi8(grey, _mm256_set1_epi8(16)));
    store(to.a + at, _mm256_packus_epi16(_mm256_srli_epi16(low, 8), _mm256_srli_epi16(high, 8)));
}

TARGET_AVX2 inline void yuva_block(const unsigned char* pixels, const sample_planes& to, size_t at)
{
    constexpr size_t half = size_t{16} * 4;
    const __m256i order = both(_mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
    const unsigned char* from = pixels + 4 * at;
    const __m256i first = _mm256_shuffle_epi8(load_halves(from, half), order);
    const __m256i second = _mm256_shuffle_epi8(load_halves(from + 16, half), order);
    const __m256i third = _mm256_shuffle_epi8(load_halves(from + 32, half), order);
    const __m256i fourth = _mm256_shuffle_epi8(load_halves(from + 48, half), order);
    const __m256i low_yu = _mm256_unpacklo_epi32(first, second);
    const __m256i high_yu = _mm256_unpacklo_epi32(third, fourth);
    const __m256i low_va = _mm256_unpackhi_epi32(first, second);
    const __m256i high_va = _mm256_unpackhi_epi32(third, fourth);
    store(to.y + at, _mm256_unpacklo_epi64(low_yu, high_yu));
    store(to.u + at, _mm256_unpackhi_epi64(low_yu, high_yu));
    store(to.v + at, _mm256_unpacklo_epi64(low_va, high_va));
    if (to.a != nullptr) {
        store(to.a + at, _mm256_unpackhi_epi64(low_va, high_va));
    }
}

using block_function = void (*)(const unsigned char*, const sample_planes&, size_t);

template <block_function convert, colour_run shorter>
TARGET_AVX2 void in_blocks(const unsigned char* pixels, size_t count, const sample_planes& to)
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

TARGET_AVX2 void rgb_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    in_blocks<rgb_block, rgb_run_ssse3>(pixels, count, to);
}

TARGET_AVX2 void rgba_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    in_blocks<rgba_block, rgba_run_ssse3>(pixels, count, to);
}

TARGET_AVX2 void grey_alpha_run_avx2(const unsigned char* pixels, size_t count,
                                     const sample_planes& to)
{
    in_blocks<grey_alpha_block, grey_alpha_run_ssse3>(pixels, count, to);
}

TARGET_AVX2 void yuva_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    in_blocks<yuva_block, yuva_run_ssse3>(pixels, count, to);
}

#endif
