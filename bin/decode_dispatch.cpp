// Chooses the decoder: one table for each format, one row for each colour model.
#include <cstdio>
#include <cstdlib>
#include <span>

#include <jpeglib.h>
#include <png.h>

#include "bin/decode/gif.h"
#include "bin/decode/jpeg.h"
#include "bin/decode/png.h"
#include "bin/decode/png_adam7.h"
#include "bin/decode/tiff.h"
#include "bin/decode/webp.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "bin/invariant.h"
#include "bin/vexa_stillimage.h"

namespace {

struct decoder {
    int colour_model; // in the format's own numbers
    int (*decode)();  // non-zero when it could not start
};

constexpr decoder jpeg_decoders[] = {
    {JCS_YCbCr, full_decode_jpeg_raw_yuv},
    {JCS_GRAYSCALE, full_decode_jpeg_raw_grayscale},
    {JCS_YCCK, full_decode_jpeg_raw_ycck},
    {JCS_CMYK, full_decode_jpeg_raw_cmyk},
};

// For pictures without interlacing. Interlaced ones of any of these colour types have one decoder.
constexpr decoder png_decoders[] = {
    {PNG_COLOR_TYPE_RGB, full_decode_png_rgb},
    {PNG_COLOR_TYPE_RGB_ALPHA, full_decode_png_rgba},
    {PNG_COLOR_TYPE_GRAY, full_decode_png_grayscale},
    {PNG_COLOR_TYPE_GRAY_ALPHA, full_decode_png_grayscale_alpha},
    {PNG_COLOR_TYPE_PALETTE, full_decode_png_palette},
};

int decode_tiff_ycbcr()
{
    full_decode_tiff_ycbcr(); // prints its own failure
    return 0;
}

// Separated pictures are CMYK only with one of the ink sets: see decode_tiff.
constexpr decoder tiff_decoders[] = {
    {PHOTOMETRIC_RGB, full_decode_tiff_rgb},
    {PHOTOMETRIC_MINISWHITE, full_decode_tiff_grayscale},
    {PHOTOMETRIC_MINISBLACK, full_decode_tiff_grayscale},
    {PHOTOMETRIC_YCBCR, decode_tiff_ycbcr},
    {PHOTOMETRIC_SEPARATED, full_decode_tiff_cmyk},
    {PHOTOMETRIC_PALETTE, full_decode_tiff_palette},
};

// Null when there is no decoder for the colour model.
const decoder* find_decoder(std::span<const decoder> decoders, int colour_model)
{
    for (const decoder& row : decoders) {
        if (row.colour_model == colour_model) {
            return &row;
        }
    }
    return nullptr;
}

void decode_jpeg()
{
    INVARIANT(jpeg_decompress != nullptr, "jpeg_decompress != __null");
    const decoder* chosen = find_decoder(jpeg_decoders, jpeg_decompress->jpeg_color_space);
    if (chosen == nullptr) {
        fputs("Not yet ready to handle decoding\n", stderr);
        abort();
    }
    if (chosen->decode() != 0) {
        fputs("WARNING: Failed to decode JPEG\n", stderr);
    }
    free_all_jpeg_fileio();
}

void decode_png()
{
    const decoder* chosen = find_decoder(png_decoders, png_color_type);
    if (png_interlace_method > 1) {
        fputs("Unsupported interlace pattern\n", stderr);
    } else if (chosen == nullptr) {
        fputs("I'm not yet familiar with that form of PNG\n", stderr);
    } else if ((png_interlace_method == 1 ? full_decode_png_rgb_adam7() : chosen->decode()) != 0) {
        fputs("WARNING: Failed to decode PNG\n", stderr);
    }
    free_all_png_fileio();
}

void decode_tiff()
{
    const decoder* chosen = find_decoder(tiff_decoders, static_cast<int>(tiff_photometric));
    const bool is_other_ink =
        tiff_photometric == PHOTOMETRIC_SEPARATED && tiff_inkset != INKSET_CMYK;
    if (chosen == nullptr || is_other_ink) {
        fputs("I'm not yet familiar with that form of TIFF\n", stderr);
    } else if (chosen->decode() != 0) {
        fputs("WARNING: Failed to decode TIFF\n", stderr);
    }
    if (tiff_image != nullptr) {
        TIFFClose(tiff_image);
        tiff_image = nullptr;
    }
}

void decode_gif()
{
    if (full_decode_gif() != 0) {
        fputs("WARNING: Failed to decode GIF\n", stderr);
    }
}

void decode_webp()
{
    full_decode_webp_yuv(); // prints its own outcome
}

} // namespace

void decode_picture()
{
    switch (image_file_type) {
    case IMAGE_TIFF:
        return decode_tiff();
    case IMAGE_JPEG:
        return decode_jpeg();
    case IMAGE_PNG:
        return decode_png();
    case IMAGE_GIF:
        return decode_gif();
    case IMAGE_WEBP:
        return decode_webp();
    default:
        return;
    }
}
