// A TIFF's whole road: examination, layout, decoding, pyramid, clean-up. It ends in a refusal, in a
// picture, or in the abort that subsampled chroma causes, and nothing stays open. A last byte below
// 64 is the number of the pump in which a signal arrives.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "bin/decode/tiff.h"
#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "fuzz/whole_road.h"
#include "platform/media_item.h"
#include "tests/support/caught_abort.h"
#include "tests/support/scripted_platform.h"

namespace {

constexpr uint32_t row_limit = 1 << 20; // bytes; samples may have thousands of bits
constexpr int last_pump = 64;

constexpr const char* wanted_aborts[] = {
    "Assertion `image_chroma_x_shift == 0' failed.\n",
    "Assertion `image_chroma_y_shift == 0' failed.\n",
};

void decode_by_photometric()
{
    switch (tiff_photometric) {
    case PHOTOMETRIC_RGB:
        full_decode_tiff_rgb();
        return;
    case PHOTOMETRIC_YCBCR:
        full_decode_tiff_ycbcr();
        return;
    case PHOTOMETRIC_SEPARATED:
        full_decode_tiff_cmyk();
        return;
    case PHOTOMETRIC_PALETTE:
        full_decode_tiff_palette();
        return;
    default:
        full_decode_tiff_grayscale();
        return;
    }
}

void go_the_whole_road()
{
    if (examine_tiff_file() != 0) {
        require(tiff_image == nullptr);
        return;
    }
    require(image_width >= 1 && image_width <= image_size_limit);
    require(image_height >= 1 && image_height <= image_size_limit);
    if (static_cast<int64_t>(image_width) * image_height > most_pixels ||
        tiff_bytes_per_row > row_limit) {
        return;
    }
    lay_out();
    make_room();
    decode_by_photometric();
    reduce();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    reset_tiff();
    start_anew();
    take_picture(data, size, last_pump);
    aborts_as_wanted(go_the_whole_road, wanted_aborts);
    free_all_tiff();
    free_all_tiff();
    require(tiff_image == nullptr);
    reset_tiff();
    start_anew();
    return 0;
}
