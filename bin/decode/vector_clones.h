// For functions whose plain loops compilers make vector code of: several versions are compiled, and
// the one for the processor at hand is chosen when the program is loaded.
#pragma once

// clang 14 gives the clones a name that other sources do not find.
#if defined(__x86_64__) && !defined(__clang__)
#define FOR_EACH_PROCESSOR __attribute__((target_clones("avx2", "default")))
#else
#define FOR_EACH_PROCESSOR
#endif
