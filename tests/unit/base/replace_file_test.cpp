#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/base/replace_file.h"
#include "tests/support/child_process.h"
#include "tests/support/failing_files.h"
#include "tests/support/temporary_folder.h"

namespace {

using failing_files::fate;
using platform::replace_failure;
using strings = std::vector<std::string>;

int replace(const temporary_folder& folder, std::string_view contents, replace_failure* failure)
{
    return platform::replace_file(folder.fd(), "f", contents, 0640, failure,
                                  failing_files::operations);
}

mode_t mode_of(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777U;
}

class ReplaceFile : public testing::Test {
protected:
    void SetUp() override { failing_files::arm(0, fate::FAIL); }

    temporary_folder folder;
    replace_failure failure;
};

TEST_F(ReplaceFile, NewFileGetsContentsAndMode)
{
    ASSERT_EQ(replace(folder, "new", &failure), 0);
    EXPECT_EQ(folder.read("f"), "new");
    EXPECT_EQ(mode_of(folder.path("f")), 0640U);
    EXPECT_EQ(folder.names(), strings{"f"});
}

TEST_F(ReplaceFile, EmptyContentsAreAllowed)
{
    folder.write("f", "old");
    ASSERT_EQ(replace(folder, "", &failure), 0);
    EXPECT_TRUE(folder.has("f"));
    EXPECT_EQ(folder.read("f"), "");
}

TEST_F(ReplaceFile, ModeOfAnOldFileIsKept)
{
    folder.write("f", "old");
    ASSERT_EQ(chmod(folder.path("f").c_str(), 0604), 0);
    ASSERT_EQ(replace(folder, "new", &failure), 0);
    EXPECT_EQ(folder.read("f"), "new");
    EXPECT_EQ(mode_of(folder.path("f")), 0604U);
}

TEST_F(ReplaceFile, OwnerOfAnOldFileIsKept)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a file away";
    }
    folder.write("f", "old");
    ASSERT_EQ(chown(folder.path("f").c_str(), 12, 34), 0);
    ASSERT_EQ(replace(folder, "new", &failure), 0);
    struct stat status = {};
    ASSERT_EQ(stat(folder.path("f").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 12U);
    EXPECT_EQ(status.st_gid, 34U);
}

TEST_F(ReplaceFile, OwnerThatCannotBeKeptIsNoFailure)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a file away";
    }
    folder.write("f", "old");
    ASSERT_EQ(chown(folder.path("f").c_str(), 12, 34), 0);
    failing_files::arm(3, fate::FAIL, EPERM); // the third call, after open_at and write
    ASSERT_EQ(replace(folder, "new", &failure), 0);
    EXPECT_EQ(failing_files::calls()[2], "change_owner");
    EXPECT_EQ(folder.read("f"), "new");
}

TEST_F(ReplaceFile, LinkIsReplacedAndItsTargetUntouched)
{
    folder.write("target", "old");
    ASSERT_EQ(symlink("target", folder.path("f").c_str()), 0);
    ASSERT_EQ(replace(folder, "new", &failure), 0);
    EXPECT_EQ(folder.read("target"), "old");
    EXPECT_EQ(folder.read("f"), "new");
}

TEST_F(ReplaceFile, ShortWritesAreContinued)
{
    failing_files::arm(0, fate::HALF_WRITES);
    ASSERT_EQ(replace(folder, "many bytes", &failure), 0);
    EXPECT_EQ(folder.read("f"), "many bytes");
}

TEST_F(ReplaceFile, StepsAreInASafeOrder)
{
    folder.write("f", "old");
    ASSERT_EQ(replace(folder, "new", &failure), 0);
    EXPECT_EQ(failing_files::calls(), (strings{"open_at", "write", "sync", "rename_at", "sync"}));
}

// A file system may decide the mode itself, for instance by a default access list.
platform::file_operations operations_that_create_with(mode_t (*forced)(),
                                                      int (*change)(int, mode_t))
{
    static mode_t (*mode)() = nullptr;
    mode = forced;
    platform::file_operations operations = platform::system_file_operations;
    operations.open_at = [](int at, const char* name, int flags, mode_t /*wanted*/) {
        return openat(at, name, flags | O_CLOEXEC, mode());
    };
    operations.change_mode = change;
    return operations;
}

int refuse_mode(int /*fd*/, mode_t /*mode*/)
{
    errno = ENOSYS;
    return -1;
}

TEST_F(ReplaceFile, ModeIsChangedWhenTheNewFileGotAnother)
{
    folder.write("f", "old");
    ASSERT_EQ(chmod(folder.path("f").c_str(), 0640), 0);
    const auto operations = operations_that_create_with([]() -> mode_t { return 0600; }, fchmod);
    ASSERT_EQ(platform::replace_file(folder.fd(), "f", "new", 0600, &failure, operations), 0);
    EXPECT_EQ(mode_of(folder.path("f")), 0640U);
}

TEST_F(ReplaceFile, ModeThatCannotBeChangedMayGiveFewerRightsOnly)
{
    folder.write("f", "old");
    ASSERT_EQ(chmod(folder.path("f").c_str(), 0640), 0);
    auto operations = operations_that_create_with([]() -> mode_t { return 0600; }, refuse_mode);
    ASSERT_EQ(platform::replace_file(folder.fd(), "f", "new", 0600, &failure, operations), 0);
    EXPECT_EQ(mode_of(folder.path("f")), 0600U);
    operations = operations_that_create_with([]() -> mode_t { return 0666; }, refuse_mode);
    const mode_t kept_mask = umask(0);
    EXPECT_EQ(platform::replace_file(folder.fd(), "f", "newer", 0600, &failure, operations), -1);
    umask(kept_mask);
    EXPECT_STREQ(failure.step, "set the mode of");
    EXPECT_EQ(folder.read("f"), "new");
    EXPECT_EQ(folder.names(), strings{"f"});
}

TEST_F(ReplaceFile, MaskOfTheProcessDoesNotChangeTheMode)
{
    folder.write("f", "old");
    ASSERT_EQ(chmod(folder.path("f").c_str(), 0664), 0);
    const mode_t kept_mask = umask(0077);
    auto operations = platform::system_file_operations;
    operations.change_mode = refuse_mode;
    EXPECT_EQ(platform::replace_file(folder.fd(), "f", "new", 0600, &failure, operations), 0);
    EXPECT_EQ(umask(kept_mask), 0077U);
    EXPECT_EQ(mode_of(folder.path("f")), 0664U);
}

struct failing_step {
    int call;
    const char* reported;
};

class ReplaceFileFailure : public testing::TestWithParam<failing_step> {};

TEST_P(ReplaceFileFailure, KeepsTheOldFileAndLeavesNothingElse)
{
    const temporary_folder folder;
    folder.write("f", "old");
    failing_files::arm(GetParam().call, fate::FAIL, EIO);
    replace_failure failure;
    EXPECT_EQ(replace(folder, "new", &failure), -1);
    EXPECT_STREQ(failure.step, GetParam().reported);
    EXPECT_EQ(failure.error_number, EIO);
    EXPECT_FALSE(failure.replaced);
    EXPECT_EQ(folder.read("f"), "old");
    EXPECT_EQ(folder.names(), strings{"f"});
}

INSTANTIATE_TEST_SUITE_P(EachStep, ReplaceFileFailure,
                         testing::Values(failing_step{1, "create"}, failing_step{2, "write"},
                                         failing_step{3, "sync"}, failing_step{4, "rename"}));

TEST_F(ReplaceFile, FailingFolderSyncIsReportedAndTheNewFileStays)
{
    folder.write("f", "old");
    failing_files::arm(5, fate::FAIL, EIO);
    EXPECT_EQ(replace(folder, "new", &failure), -1);
    EXPECT_STREQ(failure.step, "sync the folder of");
    EXPECT_EQ(failure.error_number, EIO);
    EXPECT_TRUE(failure.replaced);
    EXPECT_EQ(folder.read("f"), "new");
    EXPECT_EQ(folder.names(), strings{"f"});
}

TEST_F(ReplaceFile, KillAtEveryStepLeavesTheOldOrTheNewFile)
{
    constexpr int steps = 5;
    for (const fate moment : {fate::DIE_BEFORE, fate::DIE_AFTER}) {
        for (int step = 1; step <= steps; ++step) {
            const temporary_folder own;
            own.write("f", "old");
            const int ended = run_in_child([&] {
                failing_files::arm(step, moment);
                return replace(own, "new", &failure);
            });
            ASSERT_EQ(ended, -SIGKILL) << "step " << step;
            const bool renamed = step > 4 || (step == 4 && moment == fate::DIE_AFTER);
            EXPECT_EQ(own.read("f"), renamed ? "new" : "old") << "step " << step;
        }
    }
}

TEST_F(ReplaceFile, OnlyLeftoversOfDeadWritersAreRemoved)
{
    folder.write("f.tmp-0123", "");
    folder.write("f.tmp-4567", "");
    folder.write("f", "old");
    folder.write("f.damaged-1", "");
    folder.write("other.tmp-1", "");
    platform::remove_temporary_files(folder.fd(), "f");
    EXPECT_EQ(folder.names(), (strings{"f", "f.damaged-1", "other.tmp-1"}));
}

TEST_F(ReplaceFile, NewNameNeverReplacesAnotherFile)
{
    folder.write("from", "1");
    folder.write("to", "2");
    const auto& system = platform::system_file_operations;
    EXPECT_EQ(system.rename_new_at(folder.fd(), "from", "to"), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(folder.read("to"), "2");
    EXPECT_EQ(system.rename_new_at(folder.fd(), "from", "free"), 0);
    EXPECT_EQ(folder.names(), (strings{"free", "to"}));
}

} // namespace
