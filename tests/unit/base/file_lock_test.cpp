#include <cerrno>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/base/file_lock.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace {

using platform::file_lock;
using platform::lock_result;

TEST(FileLock, FreeLockIsTakenAndItsFileIsPrivate)
{
    const temporary_folder folder;
    file_lock lock;
    EXPECT_EQ(lock.take(folder.fd(), "l", 0), lock_result::TAKEN);
    EXPECT_TRUE(lock.held());
    struct stat status = {};
    ASSERT_EQ(stat(folder.path("l").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST(FileLock, SecondHolderIsRefused)
{
    const temporary_folder folder;
    file_lock first;
    file_lock second;
    ASSERT_EQ(first.take(folder.fd(), "l", 0), lock_result::TAKEN);
    EXPECT_EQ(second.take(folder.fd(), "l", 20'000), lock_result::BUSY);
    EXPECT_FALSE(second.held());
}

TEST(FileLock, ReleasedLockIsFree)
{
    const temporary_folder folder;
    file_lock first;
    file_lock second;
    ASSERT_EQ(first.take(folder.fd(), "l", 0), lock_result::TAKEN);
    first.release();
    EXPECT_EQ(second.take(folder.fd(), "l", 0), lock_result::TAKEN);
}

TEST(FileLock, WaitsUntilTheHolderReleases)
{
    const temporary_folder folder;
    file_lock holder;
    ASSERT_EQ(holder.take(folder.fd(), "l", 0), lock_result::TAKEN);
    child_process waiting([&] {
        file_lock lock;
        return lock.take(folder.fd(), "l", 60'000'000) == lock_result::TAKEN ? 0 : 1;
    });
    // Released explicitly, since the child has inherited the descriptor.
    holder.release();
    EXPECT_EQ(waiting.wait(), 0);
}

// Takes the lock repeatedly and removes its file each time. Returns 0 when the locked file always
// was the file of that name.
int lock_and_remove(const temporary_folder& folder)
{
    constexpr int rounds = 3000;
    for (int round = 0; round < rounds; ++round) {
        file_lock lock;
        struct stat held = {};
        struct stat named = {};
        if (lock.take(folder.fd(), "l", 60'000'000) != lock_result::TAKEN ||
            fstat(lock.fd(), &held) != 0 || stat(folder.path("l").c_str(), &named) != 0 ||
            held.st_ino != named.st_ino || unlink(folder.path("l").c_str()) != 0) {
            return 1;
        }
    }
    return 0;
}

TEST(FileLock, FileRemovedByItsHolderDoesNotCountAsTheLock)
{
    const temporary_folder folder;
    child_process first([&] { return lock_and_remove(folder); });
    child_process second([&] { return lock_and_remove(folder); });
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
}

TEST(FileLock, StopEndsTheWait)
{
    const temporary_folder folder;
    const std::atomic<int> stop = 1;
    file_lock first;
    file_lock second;
    ASSERT_EQ(first.take(folder.fd(), "l", 0), lock_result::TAKEN);
    EXPECT_EQ(second.take(folder.fd(), "l", UINT64_MAX, &stop), lock_result::BUSY);
}

TEST(FileLock, ForkedChildHoldsItAfterItsParentEnds)
{
    const temporary_folder folder;
    int go[2] = {};
    ASSERT_EQ(pipe(go), 0);
    std::unique_ptr<child_process> child;
    {
        file_lock lock;
        ASSERT_EQ(lock.take(folder.fd(), "l", 0), lock_result::TAKEN);
        child = std::make_unique<child_process>([&] {
            char byte = '\0';
            close(go[1]);
            return static_cast<int>(read(go[0], &byte, 1));
        });
    }
    file_lock second;
    EXPECT_EQ(second.take(folder.fd(), "l", 0), lock_result::BUSY);
    close(go[1]);
    EXPECT_EQ(child->wait(), 0);
    EXPECT_EQ(second.take(folder.fd(), "l", 0), lock_result::TAKEN);
    close(go[0]);
}

TEST(FileLock, LockEndsWithAKilledHolder)
{
    const temporary_folder folder;
    int ready[2] = {};
    ASSERT_EQ(pipe(ready), 0);
    child_process holder([&] {
        file_lock lock;
        lock.take(folder.fd(), "l", 0);
        EXPECT_EQ(write(ready[1], "x", 1), 1);
        for (;;) {
            pause();
        }
        return 0;
    });
    char byte = '\0';
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    file_lock lock;
    EXPECT_EQ(lock.take(folder.fd(), "l", 0), lock_result::BUSY);
    holder.kill_now();
    holder.wait();
    EXPECT_EQ(lock.take(folder.fd(), "l", 0), lock_result::TAKEN);
    close(ready[0]);
    close(ready[1]);
}

TEST(FileLock, OnlyARegularFileIsLocked)
{
    const temporary_folder folder;
    folder.write("real", "");
    ASSERT_EQ(symlink("real", folder.path("link").c_str()), 0);
    ASSERT_EQ(mkfifo(folder.path("fifo").c_str(), 0600), 0);
    file_lock lock;
    EXPECT_EQ(lock.take(folder.fd(), "link", 0), lock_result::FAILED);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(lock.take(folder.fd(), "fifo", 0), lock_result::FAILED);
    EXPECT_EQ(errno, EINVAL);
}

TEST(FileLock, OnlyAPrivateLockAsksForModeAndNames)
{
    const temporary_folder folder;
    chmod(folder.write("l", "").c_str(), 0644);
    ASSERT_EQ(link(folder.path("l").c_str(), folder.path("second").c_str()), 0);
    file_lock any;
    EXPECT_EQ(any.take(folder.fd(), "l", 0), lock_result::TAKEN);
    EXPECT_STREQ(any.refusal(), "");
    any.release();
    file_lock own(platform::lock_file_kind::PRIVATE_FILE);
    EXPECT_EQ(own.take(folder.fd(), "l", 0), lock_result::FAILED);
    EXPECT_STREQ(own.refusal(), "it has a second name");
    ASSERT_EQ(unlink(folder.path("second").c_str()), 0);
    EXPECT_EQ(own.take(folder.fd(), "l", 0), lock_result::FAILED);
    EXPECT_STREQ(own.refusal(), "its mode is not 0600");
    ASSERT_EQ(chmod(folder.path("l").c_str(), 0600), 0);
    EXPECT_EQ(own.take(folder.fd(), "l", 0), lock_result::TAKEN);
    EXPECT_STREQ(own.refusal(), "");
}

} // namespace
