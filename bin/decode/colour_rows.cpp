#include "bin/decode/colour_rows.h"

#include <algorithm>
#include <cstring>

#include "bin/decode/colour_rules.h"
#include "bin/decode/rescale.h"

packed_yuva palette_colours[256];

namespace {

constexpr colour_kernel kernels[] = {
#ifdef __x86_64__
    {"avx2", processor_feature::AVX2, rgb_run_avx2, rgba_run_avx2, grey_alpha_run_avx2,
     yuva_run_avx2},
    {"ssse3", processor_feature::SSSE3, rgb_run_ssse3, rgba_run_ssse3, grey_alpha_run_ssse3,
     yuva_run_ssse3},
#endif
    {"portable", processor_feature::NONE, rgb_run_portable, rgba_run_portable,
     grey_alpha_run_portable, yuva_run_portable},
};

const colour_kernel& chosen_kernel()
{
    static const colour_kernel& kernel = best_version(colour_kernels());
    return kernel;
}

void write_pixel(const yuv_sample& pixel, const sample_planes& to, size_t at)
{
    to.y[at] = pixel.y;
    to.u[at] = pixel.u;
    to.v[at] = pixel.v;
}

} // namespace

std::span<const colour_kernel> colour_kernels()
{
    return kernels;
}

void rgb_to_planes(const unsigned char* rgb, size_t count, const sample_planes& to)
{
    chosen_kernel().rgb(rgb, count, to);
}

void rgba_to_planes(const unsigned char* rgba, size_t count, const sample_planes& to)
{
    chosen_kernel().rgba(rgba, count, to);
}

void grey_to_planes(const unsigned char* grey, size_t count, const sample_planes& to)
{
    memcpy(to.y, grey, count);
    jpeg_rescale_luma_to_16_235(to.y, count);
}

void grey_alpha_to_planes(const unsigned char* grey_alpha, size_t count, const sample_planes& to)
{
    chosen_kernel().grey_alpha(grey_alpha, count, to);
}

void yuva_to_planes(const unsigned char* yuva, size_t count, const sample_planes& to)
{
    chosen_kernel().yuva(yuva, count, to);
}

// The colours of a short run, still in the near cache, are deinterleaved together.
void palette_to_planes(const unsigned char* indices, size_t count, const sample_planes& to)
{
    constexpr size_t max_run = 1024;
    packed_yuva run[max_run];
    for (size_t done = 0; done < count; done += max_run) {
        const size_t length = std::min(count - done, max_run);
        for (size_t i = 0; i < length; ++i) {
            run[i] = palette_colours[indices[done + i]];
        }
        yuva_to_planes(reinterpret_cast<const unsigned char*>(run), length,
                       {to.y + done, to.u + done, to.v + done, nullptr});
    }
}

// --- the portable version -----------------------------------------------------------------------

void rgb_run_portable(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    const sample_planes planes = to; // a copy that no store through a plane can change
    for (size_t i = 0; i < count; ++i, pixels += 3) {
        write_pixel(rgb_to_yuv(pixels[0], pixels[1], pixels[2]), planes, i);
    }
}

void rgba_run_portable(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    const sample_planes planes = to;
    for (size_t i = 0; i < count; ++i, pixels += 4) {
        write_pixel(rgb_to_yuv(pixels[0], pixels[1], pixels[2]), planes, i);
        planes.a[i] = pixels[3];
    }
}

void grey_alpha_run_portable(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    const sample_planes planes = to;
    for (size_t i = 0; i < count; ++i, pixels += 2) {
        planes.y[i] = rescale_luma_sample(pixels[0]);
        planes.a[i] = pixels[1];
    }
}

void yuva_run_portable(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    const sample_planes planes = to;
    for (size_t i = 0; i < count; ++i, pixels += 4) {
        write_pixel({pixels[0], pixels[1], pixels[2]}, planes, i);
        if (planes.a != nullptr) {
            planes.a[i] = pixels[3];
        }
    }
}
