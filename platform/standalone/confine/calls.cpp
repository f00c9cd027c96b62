// The calls are listed by name for all architectures and C libraries. A name that is unknown where
// this is built or run is skipped.
#include "platform/standalone/confine/calls.h"

#include <algorithm>
#include <asm/termbits.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <linux/sched.h>
#include <memory>
#include <seccomp.h>
#include <span>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace platform {

namespace {

// Excluded are calls whose arguments are in memory, where a filter cannot see them (clone3,
// openat2): a C library that does not find them uses the older ones.
constexpr const char* allowed_calls[] = {
    // memory
    "brk",
    "madvise",
    "membarrier",
    "mremap",
    "msync",
    "munmap",
    // open files
    "close",
    "copy_file_range",
    "dup",
    "dup2",
    "dup3",
    "fadvise64",
    "fadvise64_64",
    "arm_fadvise64_64",
    "fallocate",
    "fdatasync",
    "flock",
    "fsync",
    "ftruncate",
    "ftruncate64",
    "_llseek",
    "lseek",
    "pread64",
    "preadv",
    "preadv2",
    "pwrite64",
    "pwritev",
    "pwritev2",
    "read",
    "readahead",
    "readv",
    "sync_file_range",
    "sync_file_range2",
    "write",
    "writev",
    // files by name, which the rules for files limit further; those rules do not cover a file's
    // mode, owner and times
    "access",
    "faccessat",
    "faccessat2",
    "fstat",
    "fstat64",
    "fstatat64",
    "fstatfs",
    "fstatfs64",
    "getcwd",
    "getdents",
    "getdents64",
    "linkat",
    "lstat",
    "lstat64",
    "newfstatat",
    "open",
    "openat",
    "readlink",
    "readlinkat",
    "renameat",
    "renameat2",
    "stat",
    "stat64",
    "statfs",
    "statfs64",
    "statx",
    "umask",
    "unlinkat",
    // existing sockets: no socket is made, bound or connected any more, so that no other program
    // can be reached
    "accept",
    "accept4",
    "getpeername",
    "getsockname",
    "getsockopt",
    "listen",
    "recv",
    "recvfrom",
    "send",
    "sendmsg",
    "setsockopt",
    "shutdown",
    // waiting
    "epoll_ctl",
    "epoll_pwait",
    "epoll_pwait2",
    "epoll_wait",
    "poll",
    "ppoll",
    "ppoll_time64",
    // time
    "clock_getres",
    "clock_getres_time64",
    "clock_gettime",
    "clock_gettime64",
    "clock_nanosleep",
    "clock_nanosleep_time64",
    "gettimeofday",
    "nanosleep",
    "time",
    "times",
    // signals to itself
    "restart_syscall",
    "rt_sigaction",
    "rt_sigpending",
    "rt_sigprocmask",
    "rt_sigreturn",
    "rt_sigsuspend",
    "rt_sigtimedwait",
    "rt_sigtimedwait_time64",
    "sigaltstack",
    "sigreturn",
    // the process
    "exit",
    "exit_group",
    "futex",
    "futex_time64",
    "getcpu",
    "getegid",
    "getegid32",
    "geteuid",
    "geteuid32",
    "getgid",
    "getgid32",
    "getgroups",
    "getgroups32",
    "getpgrp",
    "getpid",
    "getppid",
    "getresgid",
    "getresgid32",
    "getresuid",
    "getresuid32",
    "gettid",
    "getuid",
    "getuid32",
    "rseq",
    "sched_getaffinity",
    "sched_yield",
    "set_robust_list",
    // machine and limits
    "getrandom",
    "getrlimit",
    "getrusage",
    "setrlimit",
    "sysinfo",
    "ugetrlimit",
    "uname",
};

// The required value of an argument under a mask.
struct argument_bits {
    unsigned argument;
    uint64_t mask;
    uint64_t value;
};

// The call is allowed when both conditions hold; a mask of 0 is no condition.
struct argument_rule {
    const char* name;
    argument_bits first;
    argument_bits second;
};

constexpr uint64_t all_of_an_int = 0xFFFFFFFF;
constexpr argument_bits nothing = {0, 0, 0};
constexpr argument_bits no_code = {2, PROT_EXEC, 0}; // the protection of memory

// Locks, flags and seals. The remaining requests direct signals at other processes, or watch files.
constexpr argument_bits request(int number)
{
    return {1, all_of_an_int, static_cast<uint64_t>(number)};
}

constexpr argument_rule argument_rules[] = {
    {"mmap", no_code, nothing},
    {"mmap2", no_code, nothing},
    {"mprotect", no_code, nothing},
    {"prlimit64", {0, all_of_an_int, 0}, nothing}, // its own limits
    {"sendto", {4, UINT64_MAX, 0}, nothing},       // without an address: to the end of a connection
    // Only queries of a terminal. Other requests can simulate its user's input.
    {"ioctl", {1, all_of_an_int, TCGETS}, nothing},
#ifdef TCGETS2
    {"ioctl", {1, all_of_an_int, TCGETS2}, nothing},
#endif
    {"ioctl", {1, all_of_an_int, TIOCGPGRP}, nothing},
    {"ioctl", {1, all_of_an_int, TIOCGWINSZ}, nothing},
    {"ioctl", {1, all_of_an_int, FIONREAD}, nothing},
};

constexpr int requests_of_descriptors[] = {
    F_DUPFD, F_DUPFD_CLOEXEC, F_GETFD,     F_SETFD,     F_GETFL,      F_SETFL,     F_GETLK,
    F_SETLK, F_SETLKW,        F_OFD_GETLK, F_OFD_SETLK, F_OFD_SETLKW, F_ADD_SEALS, F_GET_SEALS,
};

// 32-bit systems have numbers of their own for the requests with 64-bit offsets.
constexpr const char* calls_for_descriptors[] = {"fcntl", "fcntl64"};

constexpr uint64_t other_than_a_child = CLONE_VM | CLONE_NEWCGROUP | CLONE_NEWIPC | CLONE_NEWNET |
                                        CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUSER | CLONE_NEWUTS;
#ifdef __s390__
constexpr unsigned flags_of_clone = 1;
#else
constexpr unsigned flags_of_clone = 0;
#endif

// daemon() starts a child that leaves the session and goes to the root folder. There a further
// filter takes all of these away.
constexpr const char* calls_of_daemon[] = {"chdir", "fork", "seccomp", "setsid"};
constexpr const char* calls_for_foreign_files[] = {"fchmod", "fchown", "fchown32"};

bool allow(scmp_filter_ctx filter, const char* name, unsigned comparisons,
           const scmp_arg_cmp* comparison)
{
    const int number = seccomp_syscall_resolve_name(name);
    return number == __NR_SCMP_ERROR ||
           seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, number, comparisons, comparison) == 0;
}

scmp_arg_cmp compared(const argument_bits& bits)
{
    return {bits.argument, SCMP_CMP_MASKED_EQ, bits.mask, bits.value};
}

bool allow(scmp_filter_ctx filter, const argument_rule& rule)
{
    const scmp_arg_cmp comparisons[] = {compared(rule.first), compared(rule.second)};
    return allow(filter, rule.name, rule.second.mask == 0 ? 1 : 2, comparisons);
}

bool allow_all(scmp_filter_ctx filter, std::span<const char* const> names)
{
    return std::all_of(names.begin(), names.end(),
                       [filter](const char* name) { return allow(filter, name, 0, nullptr); });
}

bool allow_requests(scmp_filter_ctx filter)
{
    for (const char* call : calls_for_descriptors) {
        for (const int number : requests_of_descriptors) {
            if (!allow(filter, {call, request(number), nothing})) {
                return false;
            }
        }
    }
    return true;
}

// A daemon's number is not known before it exists.
bool allow_own_signals(scmp_filter_ctx filter, bool daemon)
{
    const auto own = static_cast<uint64_t>(getpid());
    return daemon ? allow(filter, "tgkill", 0, nullptr)
                  : allow(filter, {"tgkill", {0, all_of_an_int, own}, nothing});
}

bool allow_daemon(scmp_filter_ctx filter)
{
    return allow_all(filter, calls_of_daemon) &&
           allow(filter, {"clone", {flags_of_clone, other_than_a_child, 0}, nothing});
}

bool add_allowed_calls(scmp_filter_ctx filter, const call_needs& needs)
{
    for (const argument_rule& rule : argument_rules) {
        if (!allow(filter, rule)) {
            return false;
        }
    }
    return allow_all(filter, allowed_calls) && allow_requests(filter) &&
           allow_own_signals(filter, needs.daemon) && (!needs.daemon || allow_daemon(filter)) &&
           (!needs.foreign_files || allow_all(filter, calls_for_foreign_files));
}

bool set_attributes(scmp_filter_ctx filter)
{
    // The process disables new privileges itself.
    return seccomp_attr_set(filter, SCMP_FLTATR_CTL_NNP, 0) == 0 &&
           seccomp_attr_set(filter, SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_ERRNO(ENOSYS)) == 0;
}

// Options of later library versions: find the rule by the number of the call, and disable
// mitigations that slow the processor down and are meant for programs that run untrusted code.
void set_later_attributes(scmp_filter_ctx filter)
{
#if SCMP_VER_MAJOR > 2 || (SCMP_VER_MAJOR == 2 && SCMP_VER_MINOR >= 5)
    seccomp_attr_set(filter, SCMP_FLTATR_CTL_OPTIMIZE, 2);
    seccomp_attr_set(filter, SCMP_FLTATR_CTL_SSB, 1);
    seccomp_attr_set(filter, SCMP_FLTATR_API_SYSRAWRC, 1); // the kernel's own error numbers
#else
    static_cast<void>(filter);
#endif
}

using filter_owner = std::unique_ptr<void, void (*)(scmp_filter_ctx)>;

// libseccomp reports failures as negative error numbers.
bool load(scmp_filter_ctx filter)
{
    const int result = seccomp_load(filter);
    if (result != 0) {
        errno = -result;
    }
    return result == 0;
}

bool refuse(scmp_filter_ctx filter, const char* name, unsigned comparisons,
            const scmp_arg_cmp* comparison)
{
    const int number = seccomp_syscall_resolve_name(name);
    return number == __NR_SCMP_ERROR ||
           seccomp_rule_add_array(filter, SCMP_ACT_ERRNO(ENOSYS), number, comparisons,
                                  comparison) == 0;
}

} // namespace

bool restrict_calls(const call_needs& needs)
{
    const filter_owner filter(seccomp_init(SCMP_ACT_ERRNO(ENOSYS)), seccomp_release);
    if (!filter) {
        errno = ENOMEM;
        return false;
    }
    set_later_attributes(filter.get());
    return set_attributes(filter.get()) && add_allowed_calls(filter.get(), needs) &&
           load(filter.get());
}

bool restrict_calls_of_daemon()
{
    const filter_owner filter(seccomp_init(SCMP_ACT_ALLOW), seccomp_release);
    if (!filter) {
        errno = ENOMEM;
        return false;
    }
    set_later_attributes(filter.get());
    bool complete = set_attributes(filter.get());
    for (const char* name : calls_of_daemon) {
        complete = complete && refuse(filter.get(), name, 0, nullptr);
    }
    const scmp_arg_cmp of_others = {0, SCMP_CMP_NE, static_cast<scmp_datum_t>(getpid()), 0};
    return complete && refuse(filter.get(), "clone", 0, nullptr) &&
           refuse(filter.get(), "tgkill", 1, &of_others) && load(filter.get());
}

} // namespace platform
