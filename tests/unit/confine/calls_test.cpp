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
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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
        if (run_in_child([] { return platform::restrict_calls() ? 0 : 1; }) != 0) {
            GTEST_SKIP() << "this kernel cannot filter system calls";
        }
    }

    // Runs `work` in a restricted child and returns its exit status; a failed expectation gives
    // status 1.
    static int restricted(const std::function<void()>& work)
    {
        return run_in_child([&] {
            EXPECT_TRUE(platform::restrict_calls());
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

TEST_F(ConfinementCalls, SocketsAreLocalAndNotStreams)
{
    EXPECT_EQ(
        restricted([] {
            for (const int family : {AF_INET, AF_INET6, AF_NETLINK, AF_PACKET, AF_ALG, AF_VSOCK}) {
                EXPECT_EQ(socket(family, SOCK_STREAM, 0), -1);
                EXPECT_EQ(errno, ENOSYS) << family;
            }
            EXPECT_EQ(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), -1);
            EXPECT_EQ(errno, ENOSYS);
            EXPECT_GE(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), 0);
            const int type = SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK;
            EXPECT_GE(socket(AF_UNIX, type, 0), 0);
            int ends[2];
            EXPECT_EQ(socketpair(AF_UNIX, type, 0, ends), 0);
            EXPECT_EQ(send(ends[0], "x", 1, MSG_NOSIGNAL), 1);
            char byte = 0;
            EXPECT_EQ(recv(ends[1], &byte, 1, 0), 1);
        }),
        0);
}

TEST_F(ConfinementCalls, ArgumentsThatAffectOtherProcessesAreRefused)
{
    EXPECT_EQ(restricted([] {
                  EXPECT_EQ(ioctl(STDIN_FILENO, TIOCSTI, "x"), -1);
                  EXPECT_EQ(errno, ENOSYS);
                  EXPECT_EQ(syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0), -1);
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

TEST_F(ConfinementCalls, ChildrenAndThreadsCanStart)
{
    EXPECT_EQ(restricted([] {
                  int reported = 0;
                  std::thread([&reported] { reported = 7; }).join();
                  EXPECT_EQ(reported, 7);
                  EXPECT_EQ(run_in_child([] { return 5; }), 5);
                  // Children remain restricted.
                  EXPECT_EQ(run_in_child([] {
                                return socket(AF_INET, SOCK_STREAM, 0) == -1 && errno == ENOSYS ? 6
                                                                                                : 0;
                            }),
                            6);
              }),
              0);
}

TEST_F(ConfinementCalls, DaemonCanBeMade)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(restricted([&ends] {
                  // daemon() ends the parent, so the child reports the result.
                  const bool made = daemon(0, 0) == 0;
                  EXPECT_EQ(write(ends[1], made ? "yes" : "no", 3), 3);
              }),
              0);
    char answer[4] = "";
    EXPECT_EQ(read(ends[0], answer, 3), 3);
    EXPECT_STREQ(answer, "yes");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ConfinementCalls, AbortRaisesItsSignal)
{
    EXPECT_EQ(restricted([] { abort(); }), -SIGABRT);
}

TEST_F(ConfinementCalls, AnonymousMemoryCanBeMadeSealedAndMapped)
{
    EXPECT_EQ(restricted([] {
                  const int fd = memfd_create("m", MFD_CLOEXEC | MFD_ALLOW_SEALING);
                  ASSERT_GE(fd, 0);
                  EXPECT_EQ(fallocate(fd, 0, 0, 8192), 0);
                  void* bytes = mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
                  ASSERT_NE(bytes, MAP_FAILED);
                  EXPECT_EQ(madvise(bytes, 8192, MADV_DONTDUMP), 0);
                  EXPECT_EQ(fchmod(fd, 0400), 0);
                  EXPECT_EQ(fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL), 0);
                  EXPECT_EQ(munmap(bytes, 8192), 0);
              }),
              0);
}

TEST_F(ConfinementCalls, FilesCanBeWritten)
{
    const temporary_folder folder;
    EXPECT_EQ(restricted([&folder] {
                  const int fd = openat(folder.fd(), "new", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
                  ASSERT_GE(fd, 0);
                  EXPECT_EQ(write(fd, "text", 4), 4);
                  EXPECT_EQ(ftruncate(fd, 2), 0);
                  EXPECT_EQ(fchmod(fd, 0640), 0);
                  EXPECT_EQ(fchown(fd, geteuid(), getegid()), 0);
                  EXPECT_EQ(fsync(fd), 0);
                  EXPECT_EQ(linkat(folder.fd(), "new", folder.fd(), "other", 0), 0);
                  EXPECT_EQ(renameat(folder.fd(), "new", folder.fd(), "old"), 0);
                  EXPECT_EQ(unlinkat(folder.fd(), "old", 0), 0);
                  EXPECT_EQ(mkdirat(folder.fd(), "folder", 0700), 0);
                  struct stat status = {};
                  EXPECT_EQ(fstatat(folder.fd(), "other", &status, 0), 0);
                  EXPECT_EQ(status.st_size, 2);
              }),
              0);
}

TEST_F(ConfinementCalls, WaitingIsPossible)
{
    EXPECT_EQ(restricted([] {
                  const int waiter = epoll_create1(EPOLL_CLOEXEC);
                  ASSERT_GE(waiter, 0);
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
