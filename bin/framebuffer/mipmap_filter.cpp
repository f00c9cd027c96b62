#include "bin/framebuffer/mipmap_filter.h"

#include <algorithm>
#include <cstring>

namespace {

unsigned column_sum(const source_rows& rows, size_t column)
{
    return rows.above[column] + 2U * rows.middle[column] + rows.below[column];
}

unsigned char vertical_only(const source_rows& rows, size_t column)
{
    return static_cast<unsigned char>(column_sum(rows, column) >> 2);
}

// The last sample of the 3 x 3 filter that has room in the row.
size_t last_filtered(size_t samples, size_t stride)
{
    return std::min(samples, stride - 1);
}

#ifdef __x86_64__
const mipmap_kernel_variant kernels[] = {
    {"portable", halve_row_portable, true},
    {"sse2", halve_row_sse2, true}, // part of the architecture
    {"avx2", halve_row_avx2, __builtin_cpu_supports("avx2") != 0},
};
#else
const mipmap_kernel_variant kernels[] = {{"portable", halve_row_portable, true}};
#endif

} // namespace

std::span<const mipmap_kernel_variant> mipmap_kernels()
{
    return kernels;
}

mipmap_kernel fastest_mipmap_kernel()
{
    mipmap_kernel fastest = halve_row_portable;
    for (const mipmap_kernel_variant& variant : kernels) {
        if (variant.runs_here) {
            fastest = variant.halve_row;
        }
    }
    return fastest;
}

void halve_row_portable(unsigned char* out, const source_rows& rows, size_t last)
{
    unsigned left = column_sum(rows, 1);
    for (size_t k = 1; k <= last; ++k) {
        const unsigned right = column_sum(rows, 2 * k + 1);
        const unsigned sum = left + 2 * column_sum(rows, 2 * k) + right;
        out[k] = static_cast<unsigned char>((sum + 8) >> 4);
        left = right;
    }
}

size_t filter_columns(size_t samples, size_t stride)
{
    return 2 * last_filtered(samples, stride) + 2;
}

void filter_row(unsigned char* out, const source_rows& rows, size_t samples, size_t stride,
                mipmap_kernel halve_row)
{
    out[0] = vertical_only(rows, 0);
    halve_row(out, rows, last_filtered(samples, stride));
    if (samples + 1 < stride) {
        out[samples + 1] = vertical_only(rows, 2 * samples + 1);
    }
    if (samples + 2 < stride) {
        memset(out + samples + 2, 0, stride - samples - 2);
    }
}
