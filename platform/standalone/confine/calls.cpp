// The calls are listed by name for all architectures and C libraries. A name that is unknown where
// this is built or run is skipped.
#include "platform/standalone/confine/calls.h"

#include <asm/termbits.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <linux/sched.h>
#include <memory>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace platform {

namespace {

// Excluded are calls whose arguments are in memory, where a filter cannot see them (clone3,
// openat2): a C library that does not find them uses the older ones.
constexpr const char* allowed_calls[] = {
    // memory
    "brk",
    "madvise",
    "membarrier",
    "memfd_create",
    "mincore",
    "mmap",
    "mmap2",
    "mprotect",
    "mremap",
    "msync",
    "munmap",
    // open files
    "close",
    "close_range",
    "copy_file_range",
    "dup",
    "dup2",
    "dup3",
    "fadvise64",
    "fadvise64_64",
    "arm_fadvise64_64",
    "fallocate",
    "fcntl",
    "fcntl64",
    "fdatasync",
    "flock",
    "fsync",
    "ftruncate",
    "ftruncate64",
    "_llseek",
    "lseek",
    "pipe",
    "pipe2",
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
    "chdir",
    "faccessat",
    "faccessat2",
    "fchdir",
    "fchmod",
    "fchown",
    "fchown32",
    "fstat",
    "fstat64",
    "fstatat64",
    "fstatfs",
    "fstatfs64",
    "getcwd",
    "getdents",
    "getdents64",
    "link",
    "linkat",
    "lstat",
    "lstat64",
    "mkdir",
    "mkdirat",
    "newfstatat",
    "open",
    "openat",
    "readlink",
    "readlinkat",
    "rename",
    "renameat",
    "renameat2",
    "rmdir",
    "stat",
    "stat64",
    "statfs",
    "statfs64",
    "statx",
    "umask",
    "unlink",
    "unlinkat",
    // existing sockets
    "accept",
    "accept4",
    "bind",
    "connect",
    "getpeername",
    "getsockname",
    "getsockopt",
    "listen",
    "recv",
    "recvfrom",
    "recvmsg",
    "send",
    "sendmsg",
    "sendto",
    "setsockopt",
    "shutdown",
    // waiting
    "epoll_create",
    "epoll_create1",
    "epoll_ctl",
    "epoll_pwait",
    "epoll_pwait2",
    "epoll_wait",
    "eventfd",
    "eventfd2",
    "pause",
    "poll",
    "ppoll",
    "ppoll_time64",
    // time
    "alarm",
    "clock_getres",
    "clock_getres_time64",
    "clock_gettime",
    "clock_gettime64",
    "clock_nanosleep",
    "clock_nanosleep_time64",
    "getitimer",
    "gettimeofday",
    "nanosleep",
    "setitimer",
    "time",
    "times",
    // signals, which the rules for files keep inside the process where the kernel supports that
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
    "tgkill",
    // threads, children, and their properties
    "exit",
    "exit_group",
    "fork",
    "futex",
    "futex_time64",
    "get_robust_list",
    "getcpu",
    "getegid",
    "getegid32",
    "geteuid",
    "geteuid32",
    "getgid",
    "getgid32",
    "getgroups",
    "getgroups32",
    "getpgid",
    "getpgrp",
    "getpid",
    "getppid",
    "getpriority",
    "getresgid",
    "getresgid32",
    "getresuid",
    "getresuid32",
    "getsid",
    "gettid",
    "getuid",
    "getuid32",
    "prctl",
    "rseq",
    "sched_getaffinity",
    "sched_yield",
    "set_robust_list",
    "set_tid_address",
    "set_tls",
    "setsid",
    "wait4",
    "waitid",
    "waitpid",
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
constexpr uint64_t new_namespaces = CLONE_NEWCGROUP | CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWNS |
                                    CLONE_NEWPID | CLONE_NEWUSER | CLONE_NEWUTS;
#ifdef __s390__
constexpr unsigned flags_of_clone = 1;
#else
constexpr unsigned flags_of_clone = 0;
#endif

constexpr uint64_t kind_of_socket = 0xF; // the other bits are flags
constexpr argument_bits local = {0, all_of_an_int, AF_UNIX};
constexpr argument_bits nothing = {0, 0, 0};

constexpr argument_rule argument_rules[] = {
    {"clone", {flags_of_clone, new_namespaces, 0}, nothing},
    {"prlimit64", {0, all_of_an_int, 0}, nothing}, // its own limits
    // No stream sockets: they lead to services that start programs for their user, such as message
    // buses, agents and displays.
    {"socket", local, {1, kind_of_socket, SOCK_SEQPACKET}},
    {"socket", local, {1, kind_of_socket, SOCK_DGRAM}},
    {"socketpair", local, nothing},
    // Only queries of a terminal. Other requests can simulate its user's input.
    {"ioctl", {1, all_of_an_int, TCGETS}, nothing},
#ifdef TCGETS2
    {"ioctl", {1, all_of_an_int, TCGETS2}, nothing},
#endif
    {"ioctl", {1, all_of_an_int, TIOCGPGRP}, nothing},
    {"ioctl", {1, all_of_an_int, TIOCGWINSZ}, nothing},
    {"ioctl", {1, all_of_an_int, FIONREAD}, nothing},
};

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

bool add_allowed_calls(scmp_filter_ctx filter)
{
    for (const char* name : allowed_calls) {
        if (!allow(filter, name, 0, nullptr)) {
            return false;
        }
    }
    for (const argument_rule& rule : argument_rules) {
        const scmp_arg_cmp comparisons[] = {compared(rule.first), compared(rule.second)};
        const unsigned count = rule.second.mask == 0 ? 1 : 2;
        if (!allow(filter, rule.name, count, comparisons)) {
            return false;
        }
    }
    return true;
}

bool set_attributes(scmp_filter_ctx filter)
{
    // The process disables new privileges itself.
    return seccomp_attr_set(filter, SCMP_FLTATR_CTL_NNP, 0) == 0 &&
           seccomp_attr_set(filter, SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_ERRNO(ENOSYS)) == 0;
}

// Speed options of later library versions: find the rule by the number of the call, and disable
// mitigations that slow the processor down and are meant for programs that run untrusted code.
void ask_for_speed(scmp_filter_ctx filter)
{
#if SCMP_VER_MAJOR > 2 || (SCMP_VER_MAJOR == 2 && SCMP_VER_MINOR >= 5)
    seccomp_attr_set(filter, SCMP_FLTATR_CTL_OPTIMIZE, 2);
    seccomp_attr_set(filter, SCMP_FLTATR_CTL_SSB, 1);
#else
    static_cast<void>(filter);
#endif
}

} // namespace

bool restrict_calls()
{
    const std::unique_ptr<void, void (*)(scmp_filter_ctx)> filter(
        seccomp_init(SCMP_ACT_ERRNO(ENOSYS)), seccomp_release);
    if (!filter) {
        return false;
    }
    ask_for_speed(filter.get());
    return set_attributes(filter.get()) && add_allowed_calls(filter.get()) &&
           seccomp_load(filter.get()) == 0;
}

} // namespace platform
