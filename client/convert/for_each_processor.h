// Before a function of plain loops: one copy for each kind of processor, chosen when the library is
// loaded. The results are the same.
#pragma once

// clang 14 gives the copies names that do not link.
#if defined(__x86_64__) && !defined(__clang__)
#define FOR_EACH_PROCESSOR __attribute__((target_clones("avx2", "default")))
#else
#define FOR_EACH_PROCESSOR
#endif
