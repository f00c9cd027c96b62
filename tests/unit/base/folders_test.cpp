#include <cerrno>
#include <fcntl.h>
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

using platform::readable_folder;

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

// The errno and the reason of a folder that is not opened.
struct refusal {
    int code = 0;
    std::string reason;
};

refusal refusal_of(const std::string& path, platform::readable_folder readable)
{
    refusal made;
    errno = 0;
    EXPECT_FALSE(platform::open_private_folder(AT_FDCWD, path.c_str(), readable, &made.reason));
    made.code = errno;
    return made;
}

void expect_refused_either_way(const std::string& path, int code, const std::string& reason)
{
    for (const auto readable : {readable_folder::REFUSED, readable_folder::MADE_PRIVATE}) {
        const refusal made = refusal_of(path, readable);
        EXPECT_EQ(made.code, code);
        EXPECT_EQ(made.reason, reason);
    }
}

TEST(PrivateFolder, IsOpened)
{
    const temporary_folder base;
    ASSERT_EQ(mkdir(base.path("a").c_str(), 0700), 0);
    for (const auto readable : {readable_folder::REFUSED, readable_folder::MADE_PRIVATE}) {
        EXPECT_TRUE(platform::open_private_folder(AT_FDCWD, base.path("a").c_str(), readable));
        EXPECT_TRUE(platform::open_private_folder(base.fd(), "a", readable));
    }
}

TEST(PrivateFolder, FolderThatOthersCanReadIsRefusedOrMadePrivate)
{
    for (const mode_t mode : {0710U, 0740U, 0701U, 0704U, 0755U}) {
        const temporary_folder base;
        ASSERT_EQ(chmod(base.path().c_str(), mode), 0);
        const refusal made = refusal_of(base.path(), readable_folder::REFUSED);
        EXPECT_EQ(made.code, EPERM);
        EXPECT_EQ(made.reason, "readable by other users");
        EXPECT_EQ(mode_of(base.path()), mode);
        EXPECT_TRUE(platform::open_private_folder(AT_FDCWD, base.path().c_str(),
                                                  readable_folder::MADE_PRIVATE));
        EXPECT_EQ(mode_of(base.path()), 0700U);
    }
}

TEST(PrivateFolder, FolderThatOthersCanChangeIsRefused)
{
    for (const mode_t mode : {0720U, 0702U, 0777U}) {
        const temporary_folder base;
        ASSERT_EQ(chmod(base.path().c_str(), mode), 0);
        expect_refused_either_way(base.path(), EPERM, "writable by other users");
        EXPECT_EQ(mode_of(base.path()), mode);
    }
}

TEST(PrivateFolder, LinkAndFileAreRefused)
{
    const temporary_folder base;
    ASSERT_EQ(mkdir(base.path("real").c_str(), 0700), 0);
    ASSERT_EQ(symlink("real", base.path("link").c_str()), 0);
    expect_refused_either_way(base.path("link"), ENOTDIR, "not a folder, or a link");
    expect_refused_either_way(base.write("file", ""), ENOTDIR, "not a folder, or a link");
}

TEST(PrivateFolder, FolderOfAnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a folder away";
    }
    const temporary_folder base;
    ASSERT_EQ(chown(base.path().c_str(), unprivileged_user, unprivileged_user), 0);
    expect_refused_either_way(base.path(), EPERM, "owned by another user");
}

TEST(PrivateFolder, MissingFolderIsReportedWithItsReason)
{
    const temporary_folder base;
    expect_refused_either_way(base.path("none"), ENOENT, "No such file or directory");
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
