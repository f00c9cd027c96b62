#include <csignal>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/cnb/file_size_bound.h"
#include "tests/support/child_process.h"

namespace {

constexpr uint64_t mebibyte = uint64_t{1} << 20;

rlimit limit_now()
{
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    return limit;
}

int in_child(const std::function<void()>& work)
{
    return run_in_child([&] {
        signal(SIGXFSZ, SIG_IGN);
        work();
        return testing::Test::HasFailure() ? 1 : 0;
    });
}

TEST(FileSizeBound, IsTheLargerOfBothUntilTheBufferIsReserved)
{
    EXPECT_EQ(in_child([] {
                  EXPECT_TRUE(platform::start_file_size_bound(64 * mebibyte, 2 * mebibyte));
                  EXPECT_EQ(limit_now().rlim_max, 64 * mebibyte);
                  platform::tighten_file_size_bound();
                  EXPECT_EQ(limit_now().rlim_cur, 2 * mebibyte);
                  EXPECT_EQ(limit_now().rlim_max, 2 * mebibyte);
              }),
              0);
    EXPECT_EQ(in_child([] {
                  EXPECT_TRUE(platform::start_file_size_bound(mebibyte, 2 * mebibyte));
                  EXPECT_EQ(limit_now().rlim_max, 2 * mebibyte);
              }),
              0);
}

TEST(FileSizeBound, CountsForMemoryFiles)
{
    EXPECT_EQ(in_child([] {
                  EXPECT_TRUE(platform::start_file_size_bound(2 * mebibyte, mebibyte));
                  const int fd = memfd_create("m", MFD_CLOEXEC);
                  EXPECT_EQ(ftruncate(fd, 2 * mebibyte), 0);
                  EXPECT_EQ(ftruncate(fd, 2 * mebibyte + 1), -1);
                  EXPECT_EQ(errno, EFBIG);
              }),
              0);
}

TEST(FileSizeBound, LowerInheritedLimitIsKept)
{
    EXPECT_EQ(in_child([] {
                  const rlimit low = {mebibyte, 3 * mebibyte};
                  setrlimit(RLIMIT_FSIZE, &low);
                  EXPECT_TRUE(platform::start_file_size_bound(8 * mebibyte, 2 * mebibyte));
                  EXPECT_EQ(limit_now().rlim_cur, mebibyte);
                  EXPECT_EQ(limit_now().rlim_max, 3 * mebibyte);
                  platform::tighten_file_size_bound();
                  EXPECT_EQ(limit_now().rlim_cur, mebibyte);
                  EXPECT_EQ(limit_now().rlim_max, 2 * mebibyte);
              }),
              0);
}

TEST(FileSizeBound, TighteningWithoutABoundChangesNothing)
{
    EXPECT_EQ(in_child([] {
                  const rlim_t before = limit_now().rlim_cur;
                  platform::tighten_file_size_bound();
                  EXPECT_EQ(limit_now().rlim_cur, before);
                  platform::start_file_size_bound(2 * mebibyte, mebibyte);
                  platform::reset_file_size_bound();
                  platform::tighten_file_size_bound();
                  EXPECT_EQ(limit_now().rlim_cur, 2 * mebibyte);
              }),
              0);
}

} // namespace
