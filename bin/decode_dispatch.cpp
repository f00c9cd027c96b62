// Which decoder reads the picture: one table a format, one row a colour model.
#include <cstdio>
#include <cstdlib>
#include <span>

#include <jpeglib.h>

#include "bin/decode/jpeg_four.h"
#include "bin/decode/jpeg_raw.h"
#include "bin/decode/webp.h"
#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "bin/invariant.h"
#include "bin/vexa_stillimage.h"

namespace {

struct decoder {
    int colour_model; // in the format's own numbers
    int (*decode)();  // 0, or non-zero when it could not start
};

constexpr decoder jpeg_decoders[] = {
    {JCS_YCbCr, full_decode_jpeg_raw_yuv},
    {JCS_GRAYSCALE, full_decode_jpeg_raw_grayscale},
    {JCS_YCCK, full_decode_jpeg_raw_ycck},
    {JCS_CMYK, full_decode_jpeg_raw_cmyk},
};

// Null when no decoder is familiar with the colour model.
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
    if (png_interlace_method > 1) {
        fputs("Unsupported interlace pattern\n", stderr);
    } else {
        fputs("I'm not yet familiar with that form of PNG\n", stderr);
    }
    free_all_png_fileio();
}

void decode_tiff()
{
    fputs("I'm not yet familiar with that form of TIFF\n", stderr);
    if (tiff_image != nullptr) {
        TIFFClose(tiff_image);
        tiff_image = nullptr;
    }
}

void decode_gif()
{
    fputs("WARNING: Failed to decode GIF\n", stderr);
}

void decode_webp()
{
    full_decode_webp_yuv(); // tells its outcome itself
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
