// FOR_EACH_PROCESSOR before a function of plain loops compiles it once for each kind of processor;
// the loader chooses. All copies give the same results.
#pragma once

// The copies that clang 14 makes do not link.
#if defined(__x86_64__) && !defined(__clang__)
#define FOR_EACH_PROCESSOR __attribute__((target_clones("avx2", "default")))
#else
#define FOR_EACH_PROCESSOR
#endif
