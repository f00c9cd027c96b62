// Plain loops that compilers vectorise. Products of two samples divided by 255 and all sums of the
// RGB rule fit 16 bits.
#include "bin/decode/tiff_rows.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "bin/decode/colour_rules.h"
#include "bin/decode/rescale.h"
#include "bin/invariant.h"
#include "common/for_each_processor.h"

namespace {

constexpr unsigned char luma_black = 16;
constexpr unsigned char luma_white = 235;

// --- YCbCr --------------------------------------------------------------------------------------

FOR_EACH_PROCESSOR void deinterleave_three(const unsigned char* __restrict source, size_t count,
                                           unsigned char* __restrict first,
                                           unsigned char* __restrict second,
                                           unsigned char* __restrict third)
{
    for (size_t i = 0; i < count; ++i) {
        first[i] = source[3 * i];
        second[i] = source[3 * i + 1];
        third[i] = source[3 * i + 2];
    }
}

FOR_EACH_PROCESSOR void deinterleave_four(const unsigned char* __restrict source, size_t count,
                                          unsigned char* __restrict first,
                                          unsigned char* __restrict second,
                                          unsigned char* __restrict third,
                                          unsigned char* __restrict fourth)
{
    for (size_t i = 0; i < count; ++i) {
        first[i] = source[4 * i];
        second[i] = source[4 * i + 1];
        third[i] = source[4 * i + 2];
        fourth[i] = source[4 * i + 3];
    }
}

void rescale_ycbcr(size_t count, const sample_planes& to)
{
    jpeg_rescale_luma_to_16_235(to.y, count);
    jpeg_rescale_chroma_to_16_240(to.u, count);
    jpeg_rescale_chroma_to_16_240(to.v, count);
}

void convert_ycbcr(const unsigned char* source, size_t count, const sample_planes& to)
{
    deinterleave_three(source, count, to.y, to.u, to.v);
    rescale_ycbcr(count, to);
}

void convert_ycbcr_alpha(const unsigned char* source, size_t count, const sample_planes& to)
{
    deinterleave_four(source, count, to.y, to.u, to.v, to.a);
    rescale_ycbcr(count, to);
}

// --- CMYK ---------------------------------------------------------------------------------------

// What remains of the white `w` under this much ink.
constexpr uint16_t under_ink(uint16_t w, uint16_t ink)
{
    return static_cast<uint16_t>(w - divided_by_255(static_cast<uint16_t>(ink * w)));
}

constexpr yuv_sample inks_to_yuv(unsigned char c, unsigned char m, unsigned char y, unsigned char k)
{
    const auto w = static_cast<uint16_t>(255 - k);
    return rgb_to_yuv(under_ink(w, c), under_ink(w, m), under_ink(w, y));
}

FOR_EACH_PROCESSOR void inks_to_planes(const unsigned char* __restrict source, size_t count,
                                       unsigned char* __restrict y, unsigned char* __restrict u,
                                       unsigned char* __restrict v)
{
    for (size_t i = 0; i < count; ++i) {
        const unsigned char* inks = source + 4 * i;
        const yuv_sample pixel = inks_to_yuv(inks[0], inks[1], inks[2], inks[3]);
        y[i] = pixel.y;
        u[i] = pixel.u;
        v[i] = pixel.v;
    }
}

void convert_cmyk(const unsigned char* source, size_t count, const sample_planes& to)
{
    inks_to_planes(source, count, to.y, to.u, to.v);
}

void convert_cmyk_alpha(const unsigned char* source, size_t count, const sample_planes& to)
{
    constexpr size_t max_run = 1024;
    unsigned char inks[max_run * 4];
    for (size_t done = 0; done < count; done += max_run) {
        const size_t length = std::min(count - done, max_run);
        for (size_t i = 0; i < length; ++i) {
            const unsigned char* pixel = source + 5 * (done + i);
            memcpy(inks + 4 * i, pixel, 4);
            to.a[done + i] = pixel[4];
        }
        inks_to_planes(inks, length, to.y + done, to.u + done, to.v + done);
    }
}

// --- one bit a sample ---------------------------------------------------------------------------

// Eight pixels for each byte, most significant bit first.
using bit_rows = std::array<std::array<unsigned char, 8>, 256>;

constexpr bit_rows luma_of_bits(unsigned char zero, unsigned char one)
{
    bit_rows rows = {};
    for (size_t byte = 0; byte < rows.size(); ++byte) {
        for (size_t i = 0; i < 8; ++i) {
            rows[byte][i] = (byte >> (7 - i) & 1) != 0 ? one : zero;
        }
    }
    return rows;
}

constexpr bit_rows black_is_zero = luma_of_bits(luma_black, luma_white);
constexpr bit_rows white_is_zero_rows = luma_of_bits(luma_white, luma_black);
const bit_rows* bit_luma = &black_is_zero;

void convert_bits(const unsigned char* source, size_t count, const sample_planes& to)
{
    for (size_t i = 0; i < (count + 7) / 8; ++i) {
        memcpy(to.y + 8 * i, (*bit_luma)[source[i]].data(), 8);
    }
}

// Kept as is: 8-bit grey is shown as stored, also where white is zero.
constexpr tiff_converter converters[] = {
    {TIFF_RGB, 8, false, rgb_to_planes, 1},
    {TIFF_RGB, 8, true, rgba_to_planes, 1},
    {TIFF_GRAYSCALE, 8, false, grey_to_planes, 1},
    {TIFF_GRAYSCALE, 8, true, grey_alpha_to_planes, 1},
    {TIFF_GRAYSCALE, 1, false, convert_bits, 8},
    {TIFF_YCBCR, 8, false, convert_ycbcr, 1},
    {TIFF_YCBCR, 8, true, convert_ycbcr_alpha, 1},
    {TIFF_CMYK, 8, false, convert_cmyk, 1},
    {TIFF_CMYK, 8, true, convert_cmyk_alpha, 1},
    {TIFF_PALETTE, 8, false, palette_to_planes, 1},
};

} // namespace

const tiff_converter* find_tiff_converter(tiff_model model, uint32_t bits, bool has_alpha)
{
    for (const tiff_converter& row : converters) {
        if (row.model == model && row.bits == bits && row.has_alpha == has_alpha) {
            return &row;
        }
    }
    return nullptr;
}

void convert_tiff_row(const tiff_converter& converter, const unsigned char* source, size_t count,
                      const sample_planes& to)
{
    INVARIANT(count != 0, "c != 0");
    converter.convert(source, count, to);
}

void set_tiff_bit_luma(bool white_is_zero)
{
    bit_luma = white_is_zero ? &white_is_zero_rows : &black_is_zero;
}

void set_tiff_colours(const uint16_t* red, const uint16_t* green, const uint16_t* blue)
{
    for (size_t i = 0; i < std::size(palette_colours); ++i) {
        const yuv_sample colour = rgb_to_yuv(red[i] >> 8, green[i] >> 8, blue[i] >> 8);
        palette_colours[i] = {colour.y, colour.u, colour.v, 255};
    }
}
