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
#include "bin/framebuffer/mipmap.h"
#include "bin/framebuffer/records.h"
#include "platform/media_item.h"
#include "tests/support/caught_abort.h"
#include "tests/support/scripted_platform.h"

namespace {

constexpr int64_t pixel_limit = 1 << 20; // larger pictures only cost time
constexpr int last_pump = 64;

constexpr const char* wanted_aborts[] = {
    "Unexpected longjmp from JPEGLIB error handler\n",
    "Assertion `irem <= 16' failed.\n",
};

void require(bool condition)
{
    if (!condition) {
        abort();
    }
}

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
    if (static_cast<int64_t>(image_width) * image_height > pixel_limit) {
        return;
    }
    layout_full_size();
    layout_mipmaps();
    require(cnb_default_buffer_load() == 0);
    require(cnb_malloc(&image_cnb_alloc, image_decoded_size, "Image"));
    require(build_picture_records() == 0);
    decode_by_colour_space();
    if (DIE4 == 0) {
        generate_all_mipmaps();
        require(mipmaps_avail == mipmaps);
    }
}

void start_anew()
{
    reset_jpeg_reader();
    reset_image_state();
    reset_layout();
    reset_mipmaps();
    scripted::reset();
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
    start_anew();
    if (size != 0 && data[size - 1] < last_pump) {
        scripted::plan.die_after_idle = data[size - 1];
    }
    scripted::set_picture(data, size);
    vexa_acc_cache = vexa_global_access_cache_create();
    aborts_as_wanted(go_the_whole_road, wanted_aborts);
    free_all_jpeg_fileio();
    free_all_jpeg_fileio();
    require(jpeg_fp == nullptr && jpeg_decompress == nullptr && jpeg_error_manager == nullptr);
    start_anew();
    return 0;
}
