#include <asm/termbits.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <linux/sched.h>
#include <poll.h>
#include <span>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/confine/calls.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace {

class ConfinementCalls : public testing::Test {
protected:
    void SetUp() override
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "sanitizers need more system calls";
        }
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0); // without it only root may restrict itself
        if (run_in_child([] { return platform::restrict_calls({}) ? 0 : 1; }) != 0) {
            GTEST_SKIP() << "this kernel cannot filter system calls";
        }
    }

    // Runs `work` in a restricted child and returns its exit status; a failed expectation gives
    // status 1.
    static int restricted(const std::function<void()>& work, const platform::call_needs& needs = {})
    {
        return run_in_child([&] {
            EXPECT_TRUE(platform::restrict_calls(needs));
            work();
            return testing::Test::HasFailure() ? 1 : 0;
        });
    }
};

struct named_call {
    const char* name;
    long number;
};
#define NAMED(call)                                                                                \
    {                                                                                              \
#call, SYS_##call                                                                          \
    }

void expect_absent(std::span<const named_call> calls)
{
    for (const named_call& call : calls) {
        errno = 0;
        EXPECT_EQ(syscall(call.number, 0, 0, 0, 0, 0, 0), -1) << call.name;
        EXPECT_EQ(errno, ENOSYS) << call.name;
    }
}

TEST_F(ConfinementCalls, CallsThatNoPictureNeedsAreAbsent)
{
    const named_call calls[] = {
        NAMED(execve),
        NAMED(execveat),
        NAMED(ptrace),
        NAMED(mount),
        NAMED(umount2),
        NAMED(init_module),
        NAMED(finit_module),
        NAMED(delete_module),
        NAMED(bpf),
        NAMED(io_uring_setup),
        NAMED(io_uring_enter),
        NAMED(userfaultfd),
        NAMED(setuid),
        NAMED(setgid),
        NAMED(setresuid),
        NAMED(setresgid),
        NAMED(setgroups),
        NAMED(capset),
        NAMED(keyctl),
        NAMED(add_key),
        NAMED(perf_event_open),
        NAMED(unshare),
        NAMED(setns),
        NAMED(kill),
        NAMED(process_vm_readv),
        NAMED(process_vm_writev),
        NAMED(pidfd_open),
        NAMED(pidfd_getfd),
        NAMED(personality),
        NAMED(chroot),
        NAMED(pivot_root),
        NAMED(swapon),
        NAMED(mknodat),
        NAMED(symlinkat),
        NAMED(fchmodat),
        NAMED(fchownat),
        NAMED(utimensat),
        NAMED(truncate),
        NAMED(open_by_handle_at),
        NAMED(fanotify_init),
        NAMED(inotify_init1),
        NAMED(seccomp),
        NAMED(landlock_create_ruleset),
        NAMED(clock_settime),
        NAMED(sethostname),
        NAMED(memfd_secret),
        NAMED(kcmp),
        NAMED(socket),
        NAMED(socketpair),
        NAMED(bind),
        NAMED(connect),
        NAMED(memfd_create),
        NAMED(pipe2),
        NAMED(eventfd2),
        NAMED(prctl),
        NAMED(fchmod),
        NAMED(fchown),
        NAMED(mincore),
        NAMED(rt_sigqueueinfo),
        NAMED(setsid),
        NAMED(pkey_mprotect),
    };
    EXPECT_EQ(restricted([&] { expect_absent(calls); }), 0);
}

TEST_F(ConfinementCalls, CallsThatTheLibraryCanReplaceAreAbsent)
{
    // These numbers are the same on all architectures; the headers may lack the names.
    const named_call calls[] = {NAMED(clone3),       NAMED(openat2),
                                NAMED(futex_waitv),  {"cachestat", 451},
                                {"fchmodat2", 452},  {"map_shadow_stack", 453},
                                {"futex_wake", 454}, {"mseal", 462},
                                {"setxattrat", 463}, {"one of the future", 511}};
    EXPECT_EQ(restricted([&] { expect_absent(calls); }), 0);
}

TEST_F(ConfinementCalls, ExistingConnectionsWork)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(restricted([&ends] {
                  EXPECT_EQ(send(ends[0], "x", 1, MSG_NOSIGNAL), 1);
                  char byte = 0;
                  EXPECT_EQ(recv(ends[1], &byte, 1, 0), 1);
                  EXPECT_EQ(shutdown(ends[0], SHUT_RDWR), 0);
              }),
              0);
    close(ends[0]);
    close(ends[1]);
}

// sendto() with an address; the socket is connected, so without one it would send, too.
bool sends_to_an_address(int fd)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    errno = 0;
    return sendto(fd, "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) == 1 ||
           errno != ENOSYS;
}

TEST_F(ConfinementCalls, NothingIsSentToAnAddress)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(restricted([&ends] { EXPECT_FALSE(sends_to_an_address(ends[0])); }), 0);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ConfinementCalls, ArgumentsThatAffectOtherProcessesAreRefused)
{
    EXPECT_EQ(restricted([] {
                  EXPECT_EQ(ioctl(STDIN_FILENO, TIOCSTI, "x"), -1);
                  EXPECT_EQ(errno, ENOSYS);
                  rlimit limit = {};
                  EXPECT_EQ(prlimit(getppid(), RLIMIT_AS, nullptr, &limit), -1);
                  EXPECT_EQ(errno, ENOSYS);
                  EXPECT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
                  errno = 0;
                  isatty(STDIN_FILENO);
                  EXPECT_NE(errno, ENOSYS);
#ifdef TCGETS2
                  // Newer C libraries ask for the same like this.
                  unsigned char answer[256];
                  errno = 0;
                  ioctl(STDIN_FILENO, TCGETS2, answer);
                  EXPECT_NE(errno, ENOSYS);
#endif
              }),
              0);
}

TEST_F(ConfinementCalls, MemoryCannotBecomeExecutable)
{
    EXPECT_EQ(restricted([] {
                  constexpr int plain = PROT_READ | PROT_WRITE;
                  constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS;
                  void* page = mmap(nullptr, 4096, plain, flags, -1, 0);
                  EXPECT_NE(page, MAP_FAILED);
                  EXPECT_EQ(mprotect(page, 4096, PROT_READ), 0);
                  EXPECT_EQ(mprotect(page, 4096, PROT_READ | PROT_EXEC), -1);
                  EXPECT_EQ(errno, ENOSYS);
                  EXPECT_EQ(mmap(nullptr, 4096, plain | PROT_EXEC, flags, -1, 0), MAP_FAILED);
                  EXPECT_EQ(errno, ENOSYS);
              }),
              0);
}

TEST_F(ConfinementCalls, RequestsThatSignalOthersAreRefused)
{
    EXPECT_EQ(restricted([] {
                  for (const int request :
                       {F_SETOWN, F_SETOWN_EX, F_SETSIG, F_NOTIFY, F_SETLEASE, F_SETPIPE_SZ}) {
                      errno = 0;
                      EXPECT_EQ(fcntl(STDERR_FILENO, request, getppid()), -1);
                      EXPECT_EQ(errno, ENOSYS) << request;
                  }
                  const int copy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
                  EXPECT_GT(copy, STDERR_FILENO);
                  EXPECT_EQ(fcntl(copy, F_GETFD), FD_CLOEXEC);
                  EXPECT_EQ(fcntl(copy, F_SETFD, 0), 0);
                  EXPECT_NE(fcntl(copy, F_GETFL), -1);
              }),
              0);
}

TEST_F(ConfinementCalls, SignalsAreForTheProcessItself)
{
    EXPECT_EQ(restricted([] {
                  EXPECT_EQ(syscall(SYS_tgkill, getpid(), gettid(), 0), 0);
                  EXPECT_EQ(syscall(SYS_tgkill, getppid(), getppid(), 0), -1);
                  EXPECT_EQ(errno, ENOSYS);
              }),
              0);
}

bool can_fork()
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    return child > 0 && waitpid(child, nullptr, 0) != 0;
}

TEST_F(ConfinementCalls, NoProcessOrThreadStarts)
{
    EXPECT_EQ(restricted([] {
                  EXPECT_FALSE(can_fork());
                  EXPECT_EQ(errno, ENOSYS);
                  EXPECT_THROW(std::thread([] {}), std::system_error);
              }),
              0);
}

TEST_F(ConfinementCalls, DaemonEntersNoNamespace)
{
    EXPECT_EQ(restricted(
                  [] {
                      EXPECT_EQ(syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0), -1);
                      EXPECT_EQ(errno, ENOSYS);
                  },
                  {.daemon = true}),
              0);
}

// What a restricted daemon reports of itself through a pipe.
std::string daemon_report(const std::function<std::string()>& in_the_daemon)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const int status = run_in_child([&] {
        if (!platform::restrict_calls({.daemon = true})) {
            return 1;
        }
        // daemon() ends the parent, so the child reports the result.
        const std::string report = daemon(0, 0) == 0 ? in_the_daemon() : "no daemon";
        return write(ends[1], report.data(), report.size()) < 0 ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
    close(ends[1]);
    char answer[64] = "";
    std::string report;
    while (read(ends[0], answer, sizeof answer - 1) > 0) {
        report += answer;
    }
    close(ends[0]);
    return report;
}

TEST_F(ConfinementCalls, DaemonCanBeMadeButStartsNoThread)
{
    EXPECT_EQ(daemon_report([]() -> std::string {
                  try {
                      std::thread([] {}).join();
                  } catch (const std::system_error&) {
                      return "daemon without threads";
                  }
                  return "thread";
              }),
              "daemon without threads");
}

TEST_F(ConfinementCalls, FinishedDaemonStartsNoProcessAndSignalsItselfOnly)
{
    EXPECT_EQ(daemon_report([]() -> std::string {
                  const pid_t parent = getppid();
                  if (!platform::restrict_calls_of_daemon()) {
                      return "not restricted";
                  }
                  std::string report = fork() < 0 ? "no fork" : "fork";
                  report += setsid() < 0 && errno == ENOSYS ? ", no session" : ", session";
                  const bool other = syscall(SYS_tgkill, parent, parent, 0) == 0 || errno != ENOSYS;
                  report += other ? ", signals" : ", no signals";
                  return report +
                         (syscall(SYS_tgkill, getpid(), gettid(), 0) == 0 ? "" : " at all");
              }),
              "no fork, no session, no signals");
}

TEST_F(ConfinementCalls, AbortRaisesItsSignal)
{
    EXPECT_EQ(restricted([] { abort(); }), -SIGABRT);
}

TEST_F(ConfinementCalls, MemoryFileCanBeFilledSealedAndMapped)
{
    const int fd = memfd_create("m", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(restricted([fd] {
                  EXPECT_EQ(fallocate(fd, 0, 0, 8192), 0);
                  void* bytes = mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
                  ASSERT_NE(bytes, MAP_FAILED);
                  EXPECT_EQ(madvise(bytes, 8192, MADV_DONTDUMP), 0);
                  EXPECT_EQ(fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL), 0);
                  EXPECT_EQ(munmap(bytes, 8192), 0);
              }),
              0);
    close(fd);
}

TEST_F(ConfinementCalls, FilesCanBeWritten)
{
    const temporary_folder folder;
    EXPECT_EQ(restricted([&folder] {
                  const int fd = openat(folder.fd(), "new", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
                  ASSERT_GE(fd, 0);
                  EXPECT_EQ(write(fd, "text", 4), 4);
                  EXPECT_EQ(ftruncate(fd, 2), 0);
                  EXPECT_EQ(fsync(fd), 0);
                  EXPECT_EQ(linkat(folder.fd(), "new", folder.fd(), "other", 0), 0);
                  EXPECT_EQ(renameat(folder.fd(), "new", folder.fd(), "old"), 0);
                  EXPECT_EQ(unlinkat(folder.fd(), "old", 0), 0);
                  struct stat status = {};
                  EXPECT_EQ(fstatat(folder.fd(), "other", &status, 0), 0);
                  EXPECT_EQ(status.st_size, 2);
              }),
              0);
}

TEST_F(ConfinementCalls, ModeAndOwnerChangeOnlyForForeignFiles)
{
    const temporary_folder folder;
    const int fd = openat(folder.fd(), "file", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(restricted([fd] {
                  EXPECT_EQ(fchmod(fd, 0640), -1);
                  EXPECT_EQ(errno, ENOSYS);
                  EXPECT_EQ(fchown(fd, geteuid(), getegid()), -1);
                  EXPECT_EQ(errno, ENOSYS);
              }),
              0);
    EXPECT_EQ(restricted(
                  [fd] {
                      EXPECT_EQ(fchmod(fd, 0640), 0);
                      EXPECT_EQ(fchown(fd, geteuid(), getegid()), 0);
                  },
                  {.foreign_files = true}),
              0);
    close(fd);
}

TEST_F(ConfinementCalls, WaitingIsPossible)
{
    const int waiter = epoll_create1(EPOLL_CLOEXEC);
    ASSERT_GE(waiter, 0);
    EXPECT_EQ(restricted([waiter] {
                  epoll_event event = {};
                  EXPECT_EQ(epoll_wait(waiter, &event, 1, 1), 0);
                  const timespec moment = {0, 1000};
                  EXPECT_EQ(ppoll(nullptr, 0, &moment, nullptr), 0);
                  EXPECT_EQ(poll(nullptr, 0, 1), 0);
                  EXPECT_EQ(nanosleep(&moment, nullptr), 0);
              }),
              0);
}

} // namespace
