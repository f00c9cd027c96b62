// Which version of a kernel runs on this machine.
//
// A kernel with versions for several processors has a table of them, best first: rows of a name,
// what the version needs, and its functions. All rows give the same bytes. The last row needs
// nothing.
//
// A plain loop that compilers vectorise well is marked FOR_EACH_PROCESSOR instead
// (common/for_each_processor.h): the compiler makes the versions.
#pragma once

#include <span>

enum class processor_feature { NONE, SSSE3, AVX2 };

inline bool runs_here(processor_feature needed)
{
    switch (needed) {
#ifdef __x86_64__
    case processor_feature::SSSE3:
        return __builtin_cpu_supports("ssse3") != 0;
    case processor_feature::AVX2:
        return __builtin_cpu_supports("avx2") != 0;
#endif
    default:
        return needed == processor_feature::NONE;
    }
}

// The first version that runs on this machine. `version` has a member `needs`.
template <typename version>
const version& best_version(std::span<const version> versions)
{
    for (const version& candidate : versions) {
        if (runs_here(candidate.needs)) {
            return candidate;
        }
    }
    return versions.back();
}

// Attributes, not compiler options for a whole file: inline functions from headers would be
// compiled for that processor too, and the linker might keep those copies for the whole program.
#ifdef __x86_64__
#define TARGET_SSSE3 __attribute__((target("ssse3")))
#define TARGET_AVX2 __attribute__((target("avx2")))
#endif
