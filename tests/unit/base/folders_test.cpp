#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/standalone/base/folders.h"
#include "tests/support/child_process.h"
#include "tests/support/refused_calls.h"
#include "tests/support/temporary_folder.h"

namespace {

mode_t mode_of(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777U;
}

TEST(Folders, MissingFoldersAreCreatedPrivate)
{
    const temporary_folder base;
    ASSERT_EQ(platform::make_folders(base.path("a/b//c/").c_str()), 0);
    EXPECT_EQ(mode_of(base.path("a")), 0700U);
    EXPECT_EQ(mode_of(base.path("a/b/c")), 0700U);
}

TEST(Folders, ExistingFoldersAreUnchanged)
{
    const temporary_folder base;
    ASSERT_EQ(mkdir(base.path("a").c_str(), 0755), 0);
    const mode_t before = mode_of(base.path("a"));
    EXPECT_EQ(platform::make_folders(base.path("a").c_str()), 0);
    EXPECT_EQ(mode_of(base.path("a")), before);
    EXPECT_EQ(platform::make_folders("/"), 0);
}

TEST(Folders, FileInTheWayIsReported)
{
    const temporary_folder base;
    base.write("file", "");
    EXPECT_EQ(platform::make_folders(base.path("file").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(platform::make_folders(base.path("file/below").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(Folders, UnreadableFolderIsReportedWithItsReason)
{
    const temporary_folder base;
    const std::string path = base.path();
    EXPECT_EQ(run_in_child([&path] {
                  if (!refuse_calls({"stat", "newfstatat", "statx", "fstatat64"}, EIO)) {
                      return 2;
                  }
                  return platform::make_folders(path.c_str()) == -1 && errno == EIO ? 0 : 1;
              }),
              0);
}

TEST(Folders, TooLongNameIsReported)
{
    const temporary_folder base;
    EXPECT_EQ(platform::make_folders(base.path(std::string(256, 'n')).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(platform::make_folders(('/' + std::string(4096, 'n')).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(Folders, OpenFolderRefusesAFile)
{
    const temporary_folder base;
    EXPECT_TRUE(platform::open_folder(base.path().c_str()));
    EXPECT_FALSE(platform::open_folder(base.write("file", "").c_str()));
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(Folders, PrivateFolderIsOpened)
{
    const temporary_folder base;
    EXPECT_TRUE(platform::open_private_folder(base.path().c_str()));
}

TEST(Folders, FolderAccessibleToOthersIsNotPrivate)
{
    const temporary_folder base;
    ASSERT_EQ(chmod(base.path().c_str(), 0710), 0);
    EXPECT_FALSE(platform::open_private_folder(base.path().c_str()));
    EXPECT_EQ(errno, EPERM);
}

TEST(Folders, LinkIsNotPrivate)
{
    const temporary_folder base;
    ASSERT_EQ(mkdir(base.path("real").c_str(), 0700), 0);
    ASSERT_EQ(symlink("real", base.path("link").c_str()), 0);
    EXPECT_FALSE(platform::open_private_folder(base.path("link").c_str()));
}

TEST(Folders, FolderOfAnotherUserIsNotPrivate)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a folder away";
    }
    const temporary_folder base;
    ASSERT_EQ(chown(base.path().c_str(), unprivileged_user, unprivileged_user), 0);
    EXPECT_FALSE(platform::open_private_folder(base.path().c_str()));
    EXPECT_EQ(errno, EPERM);
}

TEST(Folders, NamesInAFolderAreComplete)
{
    const temporary_folder base;
    base.write("a", "");
    ASSERT_EQ(mkdir(base.path(".b").c_str(), 0700), 0);
    const unique_fd folder = platform::open_folder(base.path().c_str());
    EXPECT_THAT(platform::names_in_folder(folder.get()),
                testing::UnorderedElementsAre(".", "..", "a", ".b"));
    EXPECT_THAT(platform::names_in_folder(folder.get()), testing::SizeIs(4)); // again
    EXPECT_THAT(platform::names_in_folder(-1), testing::IsEmpty());
}

} // namespace
