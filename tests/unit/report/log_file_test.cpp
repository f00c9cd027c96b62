#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/report/log_file.h"
#include "tests/support/child_process.h"
#include "tests/support/full_disk.h"
#include "tests/support/item_fixture.h"
#include "tests/support/open_descriptors.h"

namespace {

namespace fs = std::filesystem;

class LogFile : public item_test::ItemFixture {
protected:
    uint64_t bytes_on_disk() const
    {
        uint64_t sum = 0;
        for (const char* name : {"log", "log.old"}) {
            sum += folder.has(name) ? fs::file_size(folder.path(name)) : 0;
        }
        return sum;
    }

    mode_t mode_of(const char* name) const
    {
        struct stat status = {};
        EXPECT_EQ(stat(folder.path(name).c_str(), &status), 0);
        return status.st_mode & 07777U;
    }

    static std::string loss_note(uint64_t bytes)
    {
        return "[" + std::to_string(bytes) +
               " bytes of messages could not be written and are lost]\n";
    }

    platform::log_file log;
};

TEST_F(LogFile, IsCreatedForItsUserOnly)
{
    const mode_t old_mask = umask(0);
    ASSERT_TRUE(log.open(folder.path().c_str()));
    umask(old_mask);
    EXPECT_EQ(mode_of("log"), 0600U);
}

TEST_F(LogFile, ModeOfAnOlderLogIsTightened)
{
    folder.write("log", "before\n");
    chmod(folder.path("log").c_str(), 0644);
    ASSERT_TRUE(log.open(folder.path().c_str()));
    EXPECT_EQ(mode_of("log"), 0600U);
}

TEST_F(LogFile, AppendsToAnExistingLog)
{
    folder.write("log", "before\n");
    ASSERT_TRUE(log.open(folder.path().c_str()));
    log.append("after\n");
    EXPECT_EQ(folder.read("log"), "before\nafter\n");
}

TEST_F(LogFile, LinkInItsPlaceIsRefused)
{
    folder.write("target", "mine");
    fs::create_symlink(folder.path("target"), folder.path("log"));
    EXPECT_FALSE(log.open(folder.path().c_str()));
    EXPECT_EQ(log.reason(), "it is a link");
    EXPECT_FALSE(log.is_open());
    EXPECT_EQ(folder.read("target"), "mine");
}

TEST_F(LogFile, FileWithASecondLinkIsRefused)
{
    folder.write("target", "mine");
    fs::create_hard_link(folder.path("target"), folder.path("log"));
    EXPECT_FALSE(log.open(folder.path().c_str()));
    EXPECT_EQ(log.reason(), "it has a second name");
}

TEST_F(LogFile, FifoOrFolderInItsPlaceIsRefusedWithoutBlocking)
{
    ASSERT_EQ(mkfifo(folder.path("log").c_str(), 0600), 0);
    EXPECT_FALSE(log.open(folder.path().c_str()));
    EXPECT_EQ(log.reason(), "it is not a file");
    const unique_fd reader(open(folder.path("log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_FALSE(log.open(folder.path().c_str()));
    EXPECT_EQ(log.reason(), "it is not a file");
    unlink(folder.path("log").c_str());
    fs::create_directory(folder.path("log"));
    EXPECT_FALSE(log.open(folder.path().c_str()));
    EXPECT_EQ(log.reason(), "Is a directory");
}

TEST_F(LogFile, FileOfAnotherUserIsRefused)
{
    folder.write("log", "theirs");
    if (chown(folder.path("log").c_str(), unprivileged_user, unprivileged_user) != 0) {
        GTEST_SKIP() << "only the superuser can give files away";
    }
    EXPECT_FALSE(log.open(folder.path().c_str()));
    EXPECT_EQ(log.reason(), "it belongs to another user");
    EXPECT_EQ(folder.read("log"), "theirs");
}

TEST_F(LogFile, MissingFolderIsRefused)
{
    EXPECT_FALSE(log.open(folder.path("none").c_str()));
    EXPECT_EQ(log.reason(), "No such file or directory");
}

TEST_F(LogFile, FloodStaysWithinTheLimitAndKeepsTheNewest)
{
    ASSERT_TRUE(log.open(folder.path().c_str()));
    const std::string line(1000, 'x');
    for (int i = 0; i < 50'000; ++i) {
        log.append(line + std::to_string(i) + '\n');
        if (i % 1000 == 0) {
            ASSERT_LE(bytes_on_disk(), platform::log_limit);
        }
    }
    EXPECT_LE(bytes_on_disk(), platform::log_limit);
    EXPECT_GT(bytes_on_disk(), platform::log_limit / 2);
    EXPECT_TRUE(folder.read("log").ends_with("x49999\n"));
    EXPECT_EQ(mode_of("log"), 0600U);
    EXPECT_EQ(folder.names(), (std::vector<std::string>{"log", "log.old", "run"}));
}

TEST_F(LogFile, LineLargerThanTheLogIsDropped)
{
    ASSERT_TRUE(log.open(folder.path().c_str()));
    log.append(std::string(platform::log_limit / 2 + 1, 'x'));
    EXPECT_EQ(bytes_on_disk(), 0U);
    log.append("short\n");
    EXPECT_EQ(folder.read("log"), loss_note(platform::log_limit / 2 + 1) + "short\n");
}

// --- a full disk --------------------------------------------------------------------------------

class LogOnAFullDisk : public LogFile {
protected:
    LogOnAFullDisk() { EXPECT_TRUE(log.open(folder.path().c_str())); }

    full_disk disk;
};

TEST_F(LogOnAFullDisk, LossIsLoggedOnceThereIsSpace)
{
    log.append("before\n");
    ASSERT_TRUE(disk.set_room(7));
    for (int i = 0; i < 1000; ++i) {
        log.append("ten bytes\n");
    }
    EXPECT_EQ(folder.read("log"), "before\n");
    ASSERT_TRUE(disk.make_room());
    log.append("after\n");
    log.append("and more\n");
    EXPECT_EQ(folder.read("log"), "before\n" + loss_note(10'000) + "after\nand more\n");
}

TEST_F(LogOnAFullDisk, LossIsLoggedWithoutAFurtherMessageWithinASecond)
{
    ASSERT_TRUE(disk.set_room(0));
    log.append("ten bytes\n");
    log.look_for_room(5'000'000);
    ASSERT_TRUE(disk.make_room());
    log.look_for_room(5'999'999);
    EXPECT_EQ(folder.read("log"), "");
    log.look_for_room(6'000'000);
    EXPECT_EQ(folder.read("log"), loss_note(10));
    log.look_for_room(7'000'000);
    EXPECT_EQ(folder.read("log"), loss_note(10));
}

TEST_F(LogOnAFullDisk, NoteStartsALineAndCountsTheMissingBytes)
{
    ASSERT_TRUE(disk.set_room(4));
    log.append("ten bytes\n");
    EXPECT_EQ(folder.read("log"), "ten ");
    ASSERT_TRUE(disk.make_room());
    log.append("after\n");
    EXPECT_EQ(folder.read("log"), "ten \n" + loss_note(6) + "after\n");
}

TEST_F(LogOnAFullDisk, NoteThatDoesNotFitIsWrittenLater)
{
    ASSERT_TRUE(disk.set_room(0));
    log.append("ten bytes\n");
    ASSERT_TRUE(disk.set_room(5));
    log.append("ten bytes\n");
    EXPECT_EQ(folder.read("log"), "[10 b");
    ASSERT_TRUE(disk.make_room());
    log.append("after\n");
    EXPECT_EQ(folder.read("log"), "[10 b\n" + loss_note(20) + "after\n");
}

TEST_F(LogOnAFullDisk, ClosingLogsTheLoss)
{
    ASSERT_TRUE(disk.set_room(0));
    log.append("ten bytes\n");
    ASSERT_TRUE(disk.make_room());
    log.close();
    EXPECT_EQ(folder.read("log"), loss_note(10));
}

TEST_F(LogOnAFullDisk, NextLogDoesNotReportTheLoss)
{
    ASSERT_TRUE(disk.set_room(0));
    log.append("ten bytes\n");
    log.close();
    ASSERT_TRUE(disk.make_room());
    ASSERT_TRUE(log.open(folder.path().c_str()));
    log.append("after\n");
    EXPECT_EQ(folder.read("log"), "after\n");
}

// --- other processes that use the file ----------------------------------------------------------

TEST_F(LogFile, RemovedLogIsRecreated)
{
    ASSERT_TRUE(log.open(folder.path().c_str()));
    log.append("lost\n");
    unlink(folder.path("log").c_str());
    log.append("kept\n");
    EXPECT_EQ(folder.read("log"), "kept\n");
}

TEST_F(LogFile, LogRecreatedByAnotherProcessIsNotMoved)
{
    ASSERT_TRUE(log.open(folder.path().c_str()));
    log.append(std::string(platform::log_limit / 2, 'x'));
    fs::rename(folder.path("log"), folder.path("log.old"));
    folder.write("log", "of the other\n");
    log.append("ours\n");
    EXPECT_EQ(folder.read("log"), "of the other\nours\n");
    EXPECT_EQ(fs::file_size(folder.path("log.old")), platform::log_limit / 2);
}

TEST_F(LogFile, MirrorFollowsToTheNewFile)
{
    const int mirror = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_TRUE(log.open(folder.path().c_str()));
    ASSERT_TRUE(log.mirror_on(mirror));
    log.append(std::string(platform::log_limit / 2, 'x'));
    log.append("new\n");
    ASSERT_EQ(write(mirror, "raw\n", 4), 4);
    EXPECT_EQ(folder.read("log"), "new\nraw\n");
    close(mirror);
}

TEST_F(LogFile, DescriptorThatIsNoLongerTheMirrorIsUnchanged)
{
    const int mirror = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_TRUE(log.open(folder.path().c_str()));
    ASSERT_TRUE(log.mirror_on(mirror));
    const int other = open(folder.path("other").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    dup2(other, mirror);
    log.append(std::string(platform::log_limit / 2, 'x'));
    log.append("new\n");
    ASSERT_EQ(write(mirror, "raw\n", 4), 4);
    EXPECT_EQ(folder.read("log"), "new\n");
    EXPECT_EQ(folder.read("other"), "raw\n");
    close(other);
    close(mirror);
}

TEST_F(LogFile, ContinuesAfterAChangeOfTheWorkingFolder)
{
    const fs::path before = fs::current_path();
    fs::current_path(folder.path());
    ASSERT_TRUE(log.open("."));
    fs::current_path("/");
    log.append(std::string(platform::log_limit / 2, 'x'));
    log.append("new\n");
    EXPECT_EQ(folder.read("log"), "new\n");
    fs::current_path(before);
}

TEST_F(LogFile, ClosingTwiceWorks)
{
    const size_t before = open_descriptors();
    ASSERT_TRUE(log.open(folder.path().c_str()));
    log.close();
    log.close();
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
