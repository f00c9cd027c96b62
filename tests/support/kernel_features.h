// What the kernel at hand can do for confinement. Ask before the process is confined.
#pragma once

#include <cerrno>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

// The version of its rules for files; 0: none.
inline int kernel_landlock_version()
{
    constexpr unsigned ask_for_version = 1;
    const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0,
                                 static_cast<unsigned long>(ask_for_version));
    return version > 0 ? static_cast<int>(version) : 0;
}

// Whether names and descriptors can be compared in system calls, which depends on the architecture.
#if (defined(__x86_64__) && defined(__LP64__)) || defined(__AARCH64EL__) ||                        \
    (defined(__riscv) && __riscv_xlen == 64)
inline constexpr bool kernel_compares_arguments = true;
#else
inline constexpr bool kernel_compares_arguments = false;
#endif

// Whether it can refuse memory that becomes executable (Linux 6.3).
inline bool kernel_protects_memory()
{
    constexpr int ask_for_rule = 66;
    return prctl(ask_for_rule, 0, 0, 0, 0) >= 0 || errno != EINVAL;
}
