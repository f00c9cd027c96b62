#include <cerrno>
#include <fcntl.h>
#include <utility>

#include <gtest/gtest.h>

#include "common/unique_fd.h"

namespace {

int new_descriptor()
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

TEST(UniqueFd, IsEmptyAtFirst)
{
    const unique_fd fd;
    EXPECT_FALSE(fd);
    EXPECT_EQ(fd.get(), -1);
}

TEST(UniqueFd, ClosesWhatItHolds)
{
    const int number = new_descriptor();
    {
        const unique_fd fd(number);
        EXPECT_TRUE(fd);
        EXPECT_TRUE(is_open(number));
    }
    EXPECT_FALSE(is_open(number));
}

TEST(UniqueFd, ReleasedDescriptorStaysOpen)
{
    unique_fd fd(new_descriptor());
    const int number = fd.release();
    EXPECT_FALSE(fd);
    EXPECT_TRUE(is_open(number));
    close(number);
}

TEST(UniqueFd, MoveEmptiesTheSourceAndClosesTheTargetsDescriptor)
{
    unique_fd source(new_descriptor());
    unique_fd target(new_descriptor());
    const int moved = source.get();
    const int replaced = target.get();
    target = std::move(source);
    EXPECT_EQ(target.get(), moved);
    EXPECT_FALSE(source); // NOLINT(bugprone-use-after-move): this is what is tested
    EXPECT_FALSE(is_open(replaced));
    EXPECT_TRUE(is_open(moved));
}

TEST(UniqueFd, ResetToItselfKeepsItOpen)
{
    unique_fd fd(new_descriptor());
    fd.reset(fd.get());
    EXPECT_TRUE(is_open(fd.get()));
}

TEST(UniqueFd, ClosingKeepsErrno)
{
    unique_fd fd(1 << 20); // close fails, since the descriptor does not exist
    errno = EXDEV;
    fd.reset();
    EXPECT_EQ(errno, EXDEV);
}

} // namespace
