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

// The last sample of the 3 x 3 filter for which the row has room.
size_t last_filtered(size_t samples, size_t stride)
{
    return std::min(samples, stride - 1);
}

constexpr mipmap_kernel kernels[] = {
#ifdef __x86_64__
    {"avx2", processor_feature::AVX2, halve_row_avx2},
    {"sse2", processor_feature::NONE, halve_row_sse2}, // on every x86-64
#endif
    {"portable", processor_feature::NONE, halve_row_portable},
};

} // namespace

std::span<const mipmap_kernel> mipmap_kernels()
{
    return kernels;
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
                row_halver halve_row)
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
