// Limits of the process, and what it loses besides files and calls.
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/confine/capabilities.h"
#include "platform/standalone/confine/limits.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "tests/support/child_process.h"
#include "tests/support/kernel_features.h"
#include "tests/support/refused_calls.h"
#include "tests/support/temporary_folder.h"

namespace {

int in_child(const std::function<void()>& work)
{
    return run_in_child([&] {
        work();
        return testing::Test::HasFailure() ? 1 : 0;
    });
}

rlimit limit_of(__rlimit_resource which)
{
    rlimit limit = {1, 1};
    getrlimit(which, &limit);
    return limit;
}

TEST(ConfinementLimits, NoProcessMayBeStarted)
{
    EXPECT_EQ(in_child([] {
                  EXPECT_TRUE(platform::forbid_processes());
                  EXPECT_EQ(limit_of(RLIMIT_NPROC).rlim_cur, 0U);
                  EXPECT_EQ(limit_of(RLIMIT_NPROC).rlim_max, 0U);
              }),
              0);
    EXPECT_EQ(run_without_privileges([] {
                  platform::forbid_processes();
                  const pid_t child = fork();
                  if (child == 0) {
                      _exit(0);
                  }
                  return child < 0 && errno == EAGAIN ? 0 : 1;
              }),
              0);
}

TEST(ConfinementLimits, ProcessIsNotDumpable)
{
    EXPECT_EQ(in_child([] {
                  EXPECT_TRUE(platform::forbid_core_files());
                  EXPECT_EQ(limit_of(RLIMIT_CORE).rlim_cur, 0U);
                  EXPECT_EQ(limit_of(RLIMIT_CORE).rlim_max, 0U);
                  EXPECT_EQ(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0), 0);
              }),
              0);
}

TEST(ConfinementLimits, MemoryCannotBecomeExecutable)
{
    if (!kernel_protects_memory()) {
        EXPECT_EQ(in_child([] { EXPECT_EQ(platform::forbid_new_code(), 0); }), 0);
        GTEST_SKIP() << "this kernel has no rule for executable memory";
    }
    EXPECT_EQ(in_child([] {
                  EXPECT_EQ(platform::forbid_new_code(), 1);
                  EXPECT_EQ(platform::forbid_new_code(), 1); // a service manager may have done it
                  void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                  EXPECT_EQ(mprotect(page, 4096, PROT_READ | PROT_EXEC), -1);
                  EXPECT_EQ(errno, EACCES);
              }),
              0);
}

TEST(ConfinementLimits, RefusalsAreReported)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "a sanitizer ends a program that cannot query its limits";
    }
    EXPECT_EQ(in_child([] {
                  EXPECT_TRUE(refuse_calls({"prctl", "prlimit64", "setrlimit", "capget"}));
                  EXPECT_FALSE(platform::forbid_processes());
                  EXPECT_FALSE(platform::forbid_core_files());
                  EXPECT_EQ(platform::forbid_new_code(), -1);
                  EXPECT_EQ(errno, EPERM);
                  EXPECT_FALSE(platform::drop_capabilities({}));
                  EXPECT_EQ(errno, EPERM);
              }),
              0);
}

TEST(ConfinementLimits, InheritedDescriptorsAreClosedAndOurOwnStay)
{
    EXPECT_EQ(in_child([] {
                  const int inherited = open("/dev/null", O_RDONLY);
                  const int high = fcntl(inherited, F_DUPFD, 700);
                  const int own = open("/dev/null", O_RDONLY | O_CLOEXEC);
                  EXPECT_TRUE(platform::close_inherited_descriptors());
                  EXPECT_EQ(fcntl(inherited, F_GETFD), -1);
                  EXPECT_EQ(fcntl(high, F_GETFD), -1);
                  EXPECT_EQ(fcntl(own, F_GETFD), FD_CLOEXEC);
                  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                      EXPECT_NE(fcntl(standard, F_GETFD), -1) << standard;
                  }
              }),
              0);
}

// --- capabilities -------------------------------------------------------------------------------

bool has_capability(unsigned number)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    EXPECT_EQ(syscall(SYS_capget, &header, data), 0);
    const __user_cap_data_struct& half = data[number / 32];
    return ((half.effective | half.permitted) >> (number % 32) & 1U) != 0;
}

class ConfinementCapabilities : public testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only the superuser has capabilities";
        }
    }
};

TEST_F(ConfinementCapabilities, AllAreDropped)
{
    EXPECT_EQ(in_child([] {
                  EXPECT_TRUE(platform::has_capabilities());
                  EXPECT_TRUE(platform::drop_capabilities({}));
                  EXPECT_FALSE(platform::has_capabilities());
                  EXPECT_TRUE(platform::drop_capabilities({}));
                  EXPECT_EQ(chown("/dev/null", 1, 1), -1);
                  EXPECT_EQ(errno, EPERM);
              }),
              0);
}

TEST_F(ConfinementCapabilities, OnlyWhatIsNeededIsKept)
{
    EXPECT_EQ(in_child([] {
                  EXPECT_TRUE(platform::drop_capabilities({.foreign_files = true}));
                  EXPECT_TRUE(has_capability(CAP_CHOWN));
                  EXPECT_TRUE(has_capability(CAP_DAC_OVERRIDE));
                  EXPECT_FALSE(has_capability(CAP_SYS_ADMIN));
                  EXPECT_FALSE(has_capability(CAP_KILL));
              }),
              0);
}

TEST_F(ConfinementCapabilities, FileOfAnotherUserIsNotReadableWithoutThem)
{
    const temporary_folder folder;
    folder.write("picture", "");
    const std::string path = folder.path("picture");
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(platform::readable_without_capabilities(fd));
    ASSERT_EQ(chown(path.c_str(), unprivileged_user, unprivileged_user), 0);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_FALSE(platform::readable_without_capabilities(fd));
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    EXPECT_TRUE(platform::readable_without_capabilities(fd));
    EXPECT_TRUE(platform::has_capabilities());
    close(fd);
}

} // namespace
