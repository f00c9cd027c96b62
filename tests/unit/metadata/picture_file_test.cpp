#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/metadata/picture_file.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace {

using platform::open_picture;
using platform::reopen_picture;

constexpr const char* no_descriptor_folder = "/nonexistent";

std::string contents(int fd)
{
    std::array<char, 64> bytes = {};
    const ssize_t size = platform::read_fully(fd, bytes.data(), bytes.size());
    return {bytes.data(), static_cast<size_t>(size)};
}

class PictureFile : public testing::TestWithParam<const char*> {
protected:
    // Reopens through the descriptor folder, or only by path.
    unique_fd reopen(const unique_fd& picture)
    {
        return reopen_picture(picture.get(), path.c_str(), GetParam());
    }

    temporary_folder folder;
    std::string path = folder.write("picture", "the picture");
};

INSTANTIATE_TEST_SUITE_P(WithAndWithoutDescriptorFolder, PictureFile,
                         testing::Values("/proc/self/fd", no_descriptor_folder));

TEST_P(PictureFile, EachHandleHasItsOwnPositionFromTheStart)
{
    const unique_fd picture = open_picture(path.c_str());
    EXPECT_EQ(contents(picture.get()), "the picture");
    const unique_fd first = reopen(picture);
    const unique_fd second = reopen(picture);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(contents(first.get()), "the picture");
    EXPECT_EQ(contents(second.get()), "the picture");
    EXPECT_EQ(lseek(picture.get(), 0, SEEK_CUR), 11);
}

TEST_P(PictureFile, HandlesAreReadOnlyAndClosedOnExec)
{
    const unique_fd picture = open_picture(path.c_str());
    const unique_fd handle = reopen(picture);
    ASSERT_TRUE(handle);
    EXPECT_EQ(fcntl(handle.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(fcntl(handle.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(picture.get(), F_GETFD), FD_CLOEXEC);
}

TEST_P(PictureFile, NonRegularFilesAreRefused)
{
    ASSERT_EQ(mkfifo(folder.path("fifo").c_str(), 0600), 0);
    for (const std::string& other :
         {folder.path("fifo"), folder.path(), std::string("/dev/zero"), std::string("/dev/null")}) {
        const unique_fd picture = open_picture(other.c_str());
        ASSERT_TRUE(picture) << other;
        EXPECT_FALSE(reopen_picture(picture.get(), other.c_str(), GetParam())) << other;
        EXPECT_EQ(errno, EINVAL) << other;
    }
}

TEST_P(PictureFile, GeneratedKernelFilesAreRefused)
{
    for (const char* other : {"/proc/self/maps", "/proc/cpuinfo", "/sys/kernel/uevent_seqnum"}) {
        const unique_fd picture = open_picture(other);
        if (picture) {
            EXPECT_FALSE(reopen_picture(picture.get(), other, GetParam())) << other;
        }
    }
    EXPECT_TRUE(open_picture("/proc/self/maps"));
}

TEST_P(PictureFile, ClosedDescriptorIsRefused)
{
    EXPECT_FALSE(reopen_picture(-1, path.c_str(), GetParam()));
    EXPECT_EQ(errno, EBADF);
}

TEST(PictureFileReplaced, OriginalFileIsReopenedThroughTheDescriptorFolder)
{
    const temporary_folder folder;
    const std::string path = folder.write("picture", "first");
    const unique_fd picture = open_picture(path.c_str());
    folder.write("other", "second");
    std::filesystem::rename(folder.path("other"), path);
    EXPECT_EQ(contents(reopen_picture(picture.get(), path.c_str()).get()), "first");
    std::filesystem::remove(path);
    EXPECT_EQ(contents(reopen_picture(picture.get(), path.c_str()).get()), "first");
}

TEST(PictureFileReplaced, AnotherFileIsNeverOpenedInItsPlace)
{
    const temporary_folder folder;
    const std::string path = folder.write("picture", "first");
    const unique_fd picture = open_picture(path.c_str());
    folder.write("other", "second");
    std::filesystem::rename(folder.path("other"), path);
    EXPECT_FALSE(reopen_picture(picture.get(), path.c_str(), no_descriptor_folder));
    EXPECT_EQ(errno, ESTALE);
}

TEST(PictureFileReplaced, FifoInItsPlaceDoesNotBlock)
{
    const temporary_folder folder;
    const std::string path = folder.write("picture", "first");
    const unique_fd picture = open_picture(path.c_str());
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(reopen_picture(picture.get(), path.c_str(), no_descriptor_folder));
}

TEST(PictureFileOpening, MissingFileIsReported)
{
    EXPECT_FALSE(open_picture("/nonexistent/picture"));
    EXPECT_EQ(errno, ENOENT);
}

TEST(PictureFileOpening, AbsolutePathDoesNotDependOnTheWorkingFolder)
{
    EXPECT_EQ(platform::absolute_path("/a/b"), "/a/b");
    const temporary_folder folder;
    EXPECT_EQ(run_in_child([&] {
                  if (chdir(folder.path().c_str()) != 0) {
                      return 2;
                  }
                  const std::string here = std::filesystem::current_path().string();
                  return platform::absolute_path("x/y") == here + "/x/y" ? 0 : 1;
              }),
              0);
}

} // namespace
