#include "bin/framebuffer/alpha_test.h"

#include <algorithm>

#include "bin/quickidle.h"
#include "platform/run_state.h"

namespace {

constexpr int rows_between_pumps = 64;
constexpr size_t block = 64; // samples whose minimum is taken without an early exit

// A loop of fixed length without an early exit, which compilers vectorise.
unsigned char min_of_block(const unsigned char* samples)
{
    unsigned char min = 255;
    for (size_t i = 0; i < block; ++i) {
        min = samples[i] < min ? samples[i] : min;
    }
    return min;
}

} // namespace

bool any_transparent(const unsigned char* samples, size_t count)
{
    if (count < block) {
        return std::any_of(samples, samples + count,
                           [](unsigned char sample) { return sample < opaque_from; });
    }
    for (size_t i = 0; i + block <= count; i += block) {
        if (min_of_block(samples + i) < opaque_from) {
            return true;
        }
    }
    return min_of_block(samples + count - block) < opaque_from;
}

alpha_verdict test_alpha_plane(const mipmap_image& picture)
{
    const auto width = static_cast<uint64_t>(picture.width);
    for (int row = 0; row < picture.height; ++row) {
        if (row % rows_between_pumps == 0 && row > 0) {
            quickidle_comm();
        }
        if (DIE4 != 0) {
            return ALPHA_UNDECIDED;
        }
        const uint64_t offset = picture.offset_A + static_cast<uint64_t>(row) * picture.stride_A;
        unsigned char* samples = nullptr;
        unsigned long readable = 0;
        if (vexa_global_access_cache_get(vexa_acc_cache, image_cnb_buffer, offset, width, &samples,
                                         &readable, access_read) != 0 &&
            any_transparent(samples, width)) {
            return ALPHA_TRANSPARENT;
        }
    }
    return ALPHA_OPAQUE;
}
