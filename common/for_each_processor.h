// FOR_EACH_PROCESSOR before a function of plain loops compiles it once for each kind of processor;
// the dynamic loader chooses one. All copies give the same results.
#pragma once

// clang 14 gives the copies a name that other translation units do not find.
#if defined(__x86_64__) && !defined(__clang__)
#define FOR_EACH_PROCESSOR __attribute__((target_clones("avx2", "default")))
#else
#define FOR_EACH_PROCESSOR
#endif
