// The filter that halves one plane, row by row.
//
// With C(x) = above(x) + 2 middle(x) + below(x), the weighted sum of a column of three source
// samples,
//   out[0]     = C(0) >> 2
//   out[k]     = (C(2k-1) + 2 C(2k) + C(2k+1) + 8) >> 4    for k = 1 .. n
//   out[n + 1] = C(2n+1) >> 2
// for a row of n samples: 1-2-1 by 1-2-1, output k centred on source column 2k. The two samples
// behind the visible row reach the plane only where its stride has room for them.
#pragma once

#include <cstddef>
#include <span>

struct source_rows {
    const unsigned char* above;
    const unsigned char* middle;
    const unsigned char* below;
    // The middle and below of the row after this one. Never read, only called into the cache: where
    // the source does not fit there this nearly doubles the speed.
    const unsigned char* next_middle;
    const unsigned char* next_below;
};

// Writes out[1] .. out[last] from source columns 1 .. 2 last + 1; touches nothing else. The output
// overlaps no source row.
using mipmap_kernel = void (*)(unsigned char* out, const source_rows& rows, size_t last);

void halve_row_portable(unsigned char* out, const source_rows& rows, size_t last);
#ifdef __x86_64__
void halve_row_sse2(unsigned char* out, const source_rows& rows, size_t last);
void halve_row_avx2(unsigned char* out, const source_rows& rows, size_t last);
#endif

struct mipmap_kernel_variant {
    const char* name;
    mipmap_kernel halve_row;
    bool runs_here; // on this processor
};

// Every version that was built, the fastest last. All give the same bytes.
std::span<const mipmap_kernel_variant> mipmap_kernels();

mipmap_kernel fastest_mipmap_kernel();

// The source columns, counted from 0, that filter_row reads of each row.
size_t filter_columns(size_t samples, size_t stride);

// Writes one row of `samples` samples: exactly `stride` bytes, zero behind the last one that the
// filter gives. The stride is at least 2.
void filter_row(unsigned char* out, const source_rows& rows, size_t samples, size_t stride,
                mipmap_kernel halve_row);
