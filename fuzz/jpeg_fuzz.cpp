// The whole run of a JPEG: examination, layout, decoding, mipmaps, clean-up. It ends with a
// refusal, a picture, or one of the two aborts that a file may cause. No file stays open. A last
// byte below 64, which no complete JPEG has, is the number of the idle round in which a signal
// arrives.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

#include "bin/decode/jpeg.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "fuzz/picture_run.h"
#include "tests/support/caught_abort.h"
#include "tests/support/scripted_platform.h"

namespace {

constexpr int signal_rounds = 64;

constexpr const char* wanted_aborts[] = {
    "Unexpected longjmp from JPEGLIB error handler\n",
    "Assertion `irem <= 16' failed.\n",
};

void decode_by_colour_space()
{
    switch (jpeg_decompress->jpeg_color_space) {
    case JCS_YCbCr:
        full_decode_jpeg_raw_yuv();
        return;
    case JCS_GRAYSCALE:
        full_decode_jpeg_raw_grayscale();
        return;
    case JCS_YCCK:
        full_decode_jpeg_raw_ycck();
        return;
    case JCS_CMYK:
        full_decode_jpeg_raw_cmyk();
        return;
    default:
        return;
    }
}

void run_picture()
{
    if (examine_jpeg_file() != 0) {
        require(jpeg_fp == nullptr && jpeg_decompress == nullptr && jpeg_error_manager == nullptr);
        return;
    }
    require(image_width >= 1 && image_width <= image_size_limit);
    require(image_height >= 1 && image_height <= image_size_limit);
    if (static_cast<int64_t>(image_width) * image_height > max_pixels) {
        return;
    }
    lay_out();
    allocate_buffer();
    decode_by_colour_space();
    build_mipmaps();
}

} // namespace

// The rows of the fourth component are leaked by a caught abort; in the program the process ends.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:allocate_k_rows";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    reset_jpeg_reader();
    reset_everything();
    set_input(data, size, signal_rounds);
    aborts_as_wanted(run_picture, wanted_aborts);
    free_all_jpeg_fileio();
    free_all_jpeg_fileio();
    require(jpeg_fp == nullptr && jpeg_decompress == nullptr && jpeg_error_manager == nullptr);
    reset_jpeg_reader();
    reset_everything();
    return 0;
}
