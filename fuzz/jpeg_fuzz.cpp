// A JPEG's whole road: examination, layout, decoding, pyramid, clean-up. It ends in a refusal, in a
// picture, or in one of the two aborts that a file may cause, and nothing stays open. A last byte
// below 64, which no whole JPEG has, is the number of the pump in which a signal arrives.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

#include "bin/decode/jpeg_four.h"
#include "bin/decode/jpeg_raw.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/framebuffer/layout.h"
#include "fuzz/whole_road.h"
#include "platform/media_item.h"
#include "tests/support/caught_abort.h"
#include "tests/support/scripted_platform.h"

namespace {

constexpr int last_pump = 64;

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

void go_the_whole_road()
{
    if (examine_jpeg_file() != 0) {
        require(jpeg_fp == nullptr && jpeg_decompress == nullptr && jpeg_error_manager == nullptr);
        return;
    }
    require(image_width >= 1 && image_width <= image_size_limit);
    require(image_height >= 1 && image_height <= image_size_limit);
    if (static_cast<int64_t>(image_width) * image_height > most_pixels) {
        return;
    }
    lay_out();
    make_room();
    decode_by_colour_space();
    reduce();
}

} // namespace

// The fourth component's rows outlive a caught abort; in the program the process would have ended.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:allocate_k_rows";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    reset_jpeg_reader();
    start_anew();
    take_picture(data, size, last_pump);
    aborts_as_wanted(go_the_whole_road, wanted_aborts);
    free_all_jpeg_fileio();
    free_all_jpeg_fileio();
    require(jpeg_fp == nullptr && jpeg_decompress == nullptr && jpeg_error_manager == nullptr);
    reset_jpeg_reader();
    start_anew();
    return 0;
}
