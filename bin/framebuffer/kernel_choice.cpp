#include "bin/framebuffer/kernel_choice.h"

bool runs_here(processor_feature needed)
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
