// The filter that halves one plane, row by row.
//
// With C(x) = above(x) + 2 middle(x) + below(x), the weighted sum of a column of three source
// samples,
//   out[0]     = C(0) >> 2
//   out[k]     = (C(2k-1) + 2 C(2k) + C(2k+1) + 8) >> 4    for k = 1 .. n
//   out[n + 1] = C(2n+1) >> 2
// for a row of n samples: 1-2-1 by 1-2-1, output k centred on source column 2k. The two samples
// after the visible row are written only where the stride has room for them.
#pragma once

#include <cstddef>
#include <span>

#include "bin/framebuffer/kernel_choice.h"

struct source_rows {
    const unsigned char* above;
    const unsigned char* middle;
    const unsigned char* below;
    // The middle and below of the next row. Only prefetched, never read: where the source does not
    // fit the cache this nearly doubles the speed.
    const unsigned char* next_middle;
    const unsigned char* next_below;
};

// Writes out[1] .. out[last] from source columns 1 .. 2 last + 1 and touches nothing else. The
// output overlaps no source row.
using row_halver = void (*)(unsigned char* out, const source_rows& rows, size_t last);

void halve_row_portable(unsigned char* out, const source_rows& rows, size_t last);
#ifdef __x86_64__
void halve_row_sse2(unsigned char* out, const source_rows& rows, size_t last);
void halve_row_avx2(unsigned char* out, const source_rows& rows, size_t last);
#endif

struct mipmap_kernel {
    const char* name;
    processor_feature needs;
    row_halver halve_row;
};

std::span<const mipmap_kernel> mipmap_kernels();

// How many source columns, from 0 on, filter_row reads of each row.
size_t filter_columns(size_t samples, size_t stride);

// Writes one row of `samples` samples: exactly `stride` bytes, with zeros after the filter's last
// sample. The stride is at least 2.
void filter_row(unsigned char* out, const source_rows& rows, size_t samples, size_t stride,
                row_halver halve_row);
