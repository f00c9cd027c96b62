// The whole run of a TIFF: examination, layout, decoding, mipmaps, clean-up. It ends with a
// refusal, a picture, or the abort that subsampled chroma causes. No file stays open. A last byte
// below 64 is the number of the idle round in which a signal arrives.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "bin/decode/tiff.h"
#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "bin/framebuffer/layout.h"
#include "fuzz/picture_run.h"
#include "tests/support/caught_abort.h"
#include "tests/support/scripted_platform.h"

namespace {

constexpr uint32_t row_limit = 1 << 20; // in bytes; a sample may have thousands of bits
constexpr int signal_rounds = 64;

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

void run_picture()
{
    if (examine_tiff_file() != 0) {
        require(tiff_image == nullptr);
        return;
    }
    require(image_width >= 1 && image_width <= image_size_limit);
    require(image_height >= 1 && image_height <= image_size_limit);
    if (static_cast<int64_t>(image_width) * image_height > max_pixels ||
        tiff_bytes_per_row > row_limit) {
        return;
    }
    lay_out();
    allocate_buffer();
    decode_by_photometric();
    build_mipmaps();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    reset_tiff();
    reset_everything();
    set_input(data, size, signal_rounds);
    aborts_as_wanted(run_picture, wanted_aborts);
    free_all_tiff();
    free_all_tiff();
    require(tiff_image == nullptr);
    reset_tiff();
    reset_everything();
    return 0;
}
