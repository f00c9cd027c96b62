#include "bin/decode/colour_rows.h"

#include "bin/decode/colour_kernels.h"
#include "bin/decode/rescale_kernels.h"
#include "bin/decode/rgb_to_yuv.h"

namespace {

void write_pixel(const yuv_sample& pixel, const sample_planes& to, size_t at)
{
    to.y[at] = pixel.y;
    to.u[at] = pixel.u;
    to.v[at] = pixel.v;
}

bool always()
{
    return true;
}

#if defined(__x86_64__)
bool has_avx2()
{
    return __builtin_cpu_supports("avx2") != 0;
}

bool has_ssse3()
{
    return __builtin_cpu_supports("ssse3") != 0;
}
#endif

constexpr colour_kernel kernels[] = {
#if defined(__x86_64__)
    {"avx2", has_avx2, rgb_run_avx2, rgba_run_avx2, grey_alpha_run_avx2, yuva_run_avx2},
    {"ssse3", has_ssse3, rgb_run_ssse3, rgba_run_ssse3, grey_alpha_run_ssse3, yuva_run_ssse3},
#endif
    {"plain", always, rgb_run_plain, rgba_run_plain, grey_alpha_run_plain, yuva_run_plain},
};

const colour_kernel& chosen_kernel()
{
    static const colour_kernel& kernel = best_colour_kernel();
    return kernel;
}

} // namespace

void rgb_run_plain(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    const sample_planes planes = to; // a copy that no store through a plane can change
    for (size_t i = 0; i < count; ++i, pixels += 3) {
        write_pixel(rgb_to_yuv(pixels[0], pixels[1], pixels[2]), planes, i);
    }
}

void rgba_run_plain(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    const sample_planes planes = to;
    for (size_t i = 0; i < count; ++i, pixels += 4) {
        write_pixel(rgb_to_yuv(pixels[0], pixels[1], pixels[2]), planes, i);
        planes.a[i] = pixels[3];
    }
}

void grey_alpha_run_plain(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    const sample_planes planes = to;
    for (size_t i = 0; i < count; ++i, pixels += 2) {
        planes.y[i] = rescale_luma_sample(pixels[0]);
        planes.a[i] = pixels[1];
    }
}

void yuva_run_plain(const unsigned char* pixels, size_t count, const sample_planes& to)
{
    const sample_planes planes = to;
    for (size_t i = 0; i < count; ++i, pixels += 4) {
        write_pixel({pixels[0], pixels[1], pixels[2]}, planes, i);
        if (planes.a != nullptr) {
            planes.a[i] = pixels[3];
        }
    }
}

std::span<const colour_kernel> colour_kernels()
{
    return kernels;
}

const colour_kernel& best_colour_kernel()
{
    for (const colour_kernel& kernel : kernels) {
        if (kernel.runs_here()) {
            return kernel;
        }
    }
    return kernels[0]; // not reached: the last one runs everywhere
}

void rgb_to_planes(const unsigned char* rgb, size_t count, unsigned char* y, unsigned char* u,
                   unsigned char* v)
{
    chosen_kernel().rgb(rgb, count, {y, u, v, nullptr});
}

void rgba_to_planes(const unsigned char* rgba, size_t count, unsigned char* y, unsigned char* u,
                    unsigned char* v, unsigned char* a)
{
    chosen_kernel().rgba(rgba, count, {y, u, v, a});
}

void grey_alpha_to_planes(const unsigned char* grey_alpha, size_t count, unsigned char* y,
                          unsigned char* a)
{
    chosen_kernel().grey_alpha(grey_alpha, count, {y, nullptr, nullptr, a});
}

void split_yuva(const packed_yuva* pixels, size_t count, unsigned char* y, unsigned char* u,
                unsigned char* v, unsigned char* a)
{
    chosen_kernel().yuva(reinterpret_cast<const unsigned char*>(pixels), count, {y, u, v, a});
}
