// Plain loops that compilers make vector code of; the function for the processor at hand is chosen
// when the program is loaded. Products of two samples, divided by 255, and all sums of the RGB rule
// fit 16 bits.
#include "bin/decode/tiff_rows.h"

#include <array>
#include <cstring>

#include "bin/decode/colour_rows.h"
#include "bin/decode/divided_by_255.h"
#include "bin/decode/rescale.h"
#include "bin/decode/rescale_kernels.h"
#include "bin/decode/rgb_to_yuv.h"
#include "bin/decode/vector_clones.h"
#include "bin/invariant.h"

namespace {

constexpr unsigned char luma_black = 16;
constexpr unsigned char luma_white = 235;
constexpr size_t pixels_at_once = 1024;

// --- colour models of 8 bits --------------------------------------------------------------------

void convert_rgb(const unsigned char* source, size_t count, const tiff_row& to)
{
    rgb_to_planes(source, count, to.Y, to.U, to.V);
}

void convert_rgba(const unsigned char* source, size_t count, const tiff_row& to)
{
    rgba_to_planes(source, count, to.Y, to.U, to.V, to.A);
}

// Kept as is: grey of 8 bits is taken as stored, also where white is zero.
void convert_grey(const unsigned char* source, size_t count, const tiff_row& to)
{
    memcpy(to.Y, source, count);
    jpeg_rescale_luma_to_16_235(to.Y, count);
}

void convert_grey_alpha(const unsigned char* source, size_t count, const tiff_row& to)
{
    grey_alpha_to_planes(source, count, to.Y, to.A);
}

// Full-range samples `step` bytes apart, every one of them a row of its own.
FOR_EACH_PROCESSOR void take_apart(const unsigned char* __restrict source, size_t count,
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

FOR_EACH_PROCESSOR void take_apart_four(const unsigned char* __restrict source, size_t count,
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

void rescale_ycbcr(size_t count, const tiff_row& to)
{
    jpeg_rescale_luma_to_16_235(to.Y, count);
    jpeg_rescale_chroma_to_16_240(to.U, count);
    jpeg_rescale_chroma_to_16_240(to.V, count);
}

void convert_ycbcr(const unsigned char* source, size_t count, const tiff_row& to)
{
    take_apart(source, count, to.Y, to.U, to.V);
    rescale_ycbcr(count, to);
}

void convert_ycbcr_alpha(const unsigned char* source, size_t count, const tiff_row& to)
{
    take_apart_four(source, count, to.Y, to.U, to.V, to.A);
    rescale_ycbcr(count, to);
}

// --- CMYK ---------------------------------------------------------------------------------------

// What is left of the white `w` under so much ink.
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

void convert_cmyk(const unsigned char* source, size_t count, const tiff_row& to)
{
    inks_to_planes(source, count, to.Y, to.U, to.V);
}

void convert_cmyk_alpha(const unsigned char* source, size_t count, const tiff_row& to)
{
    unsigned char inks[pixels_at_once * 4];
    for (size_t done = 0; done < count; done += pixels_at_once) {
        const size_t left = count - done;
        const size_t some = left < pixels_at_once ? left : pixels_at_once;
        for (size_t i = 0; i < some; ++i) {
            const unsigned char* pixel = source + 5 * (done + i);
            memcpy(inks + 4 * i, pixel, 4);
            to.A[done + i] = pixel[4];
        }
        inks_to_planes(inks, some, to.Y + done, to.U + done, to.V + done);
    }
}

// --- palette ------------------------------------------------------------------------------------

std::array<packed_yuva, 256> colours;

void convert_indices(const unsigned char* source, size_t count, const tiff_row& to)
{
    packed_yuva pixels[pixels_at_once];
    for (size_t done = 0; done < count; done += pixels_at_once) {
        const size_t left = count - done;
        const size_t some = left < pixels_at_once ? left : pixels_at_once;
        for (size_t i = 0; i < some; ++i) {
            pixels[i] = colours[source[done + i]];
        }
        split_yuva(pixels, some, to.Y + done, to.U + done, to.V + done, nullptr);
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

void convert_bits(const unsigned char* source, size_t count, const tiff_row& to)
{
    for (size_t i = 0; i < (count + 7) / 8; ++i) {
        memcpy(to.Y + 8 * i, (*bit_luma)[source[i]].data(), 8);
    }
}

constexpr tiff_converter converters[] = {
    {TIFF_RGB, 8, false, convert_rgb, 1},          {TIFF_RGB, 8, true, convert_rgba, 1},
    {TIFF_GRAYSCALE, 8, false, convert_grey, 1},   {TIFF_GRAYSCALE, 8, true, convert_grey_alpha, 1},
    {TIFF_GRAYSCALE, 1, false, convert_bits, 8},   {TIFF_YCBCR, 8, false, convert_ycbcr, 1},
    {TIFF_YCBCR, 8, true, convert_ycbcr_alpha, 1}, {TIFF_CMYK, 8, false, convert_cmyk, 1},
    {TIFF_CMYK, 8, true, convert_cmyk_alpha, 1},   {TIFF_PALETTE, 8, false, convert_indices, 1},
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
                      const tiff_row& to)
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
    for (size_t i = 0; i < colours.size(); ++i) {
        const yuv_sample colour = rgb_to_yuv(red[i] >> 8, green[i] >> 8, blue[i] >> 8);
        colours[i] = {colour.y, colour.u, colour.v, 0};
    }
}
