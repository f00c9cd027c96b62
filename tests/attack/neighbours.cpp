// Other processes of the same user.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "tests/attack/attack.h"

namespace attack {

namespace {

int send_signal(const std::string& pid)
{
    return outcome(kill(std::stoi(pid), 0));
}

int send_signal_to_thread(const std::string& pid)
{
    const int number = std::stoi(pid);
    return outcome(syscall(SYS_tgkill, number, number, 0));
}

int queue_signal(const std::string& pid)
{
    siginfo_t info = {};
    info.si_signo = SIGTERM;
    info.si_code = SI_QUEUE;
    return outcome(syscall(SYS_rt_sigqueueinfo, std::stoi(pid), SIGTERM, &info));
}

// The kernel would signal the owner of a descriptor when it becomes readable.
int own_descriptor(const std::string& pid)
{
    return outcome(fcntl(STDERR_FILENO, F_SETOWN, std::stoi(pid)));
}

int own_descriptor_extended(const std::string& pid)
{
    f_owner_ex owner = {F_OWNER_PID, std::stoi(pid)};
    return outcome(fcntl(STDERR_FILENO, F_SETOWN_EX, &owner));
}

int trace(const std::string& pid)
{
    const long result = ptrace(PTRACE_SEIZE, std::stoi(pid), nullptr, nullptr);
    return outcome(result);
}

int read_memory(const std::string& pid)
{
    char byte = 0;
    const iovec local = {&byte, 1};
    const iovec remote = {reinterpret_cast<void*>(uintptr_t{0x1000}), 1};
    return outcome(process_vm_readv(std::stoi(pid), &local, 1, &remote, 1, 0));
}

int open_process_file(const std::string& pid, const char* name)
{
    const int fd = open(("/proc/" + pid + "/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    char byte = 0;
    const int result = outcome(pread(fd, &byte, 1, 0));
    close(fd);
    return result;
}

int open_memory(const std::string& pid)
{
    return open_process_file(pid, "mem");
}

int open_environment(const std::string& pid)
{
    return open_process_file(pid, "environ");
}

int open_handle(const std::string& pid)
{
    return outcome(syscall(SYS_pidfd_open, std::stoi(pid), 0));
}

int limit_another(const std::string& pid)
{
    rlimit limit = {};
    return outcome(prlimit(std::stoi(pid), RLIMIT_NOFILE, nullptr, &limit));
}

int change_priority(const std::string& pid)
{
    return outcome(setpriority(PRIO_PROCESS, static_cast<id_t>(std::stoi(pid)), 5));
}

constexpr attempt attempts[] = {
    {"signal", send_signal},
    {"signal_thread", send_signal_to_thread},
    {"queue_signal", queue_signal},
    {"own_descriptor", own_descriptor},
    {"own_descriptor_extended", own_descriptor_extended},
    {"trace", trace},
    {"read_memory", read_memory},
    {"open_memory", open_memory},
    {"open_environment", open_environment},
    {"open_process", open_handle},
    {"limit_process", limit_another},
    {"priority", change_priority},
};

} // namespace

std::span<const attempt> neighbour_attempts()
{
    return attempts;
}

} // namespace attack
