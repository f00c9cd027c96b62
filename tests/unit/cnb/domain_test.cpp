#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "common/unique_fd.h"
#include "platform/cnb.h"
#include "platform/standalone/cnb/domain.h"
#include "tests/support/child_process.h"
#include "tests/unit/cnb/cnb_fixture.h"

using cnb_test::failing;
using testing::HasSubstr;

namespace {

class Domain : public cnb_test::cnb {
protected:
    static std::string join_and_tell(int expected)
    {
        testing::internal::CaptureStderr();
        EXPECT_EQ(platform::cnb_join_domain(), expected);
        return testing::internal::GetCapturedStderr();
    }

    void make_parent_of_domains()
    {
        std::filesystem::create_directories(runtime.path("stillimage/cnb"));
        std::filesystem::permissions(runtime.path("stillimage"), std::filesystem::perms::owner_all);
        std::filesystem::permissions(runtime.path("stillimage/cnb"),
                                     std::filesystem::perms::owner_all);
    }

    static mode_t mode_of(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_mode & 07777U;
    }
};

TEST_F(Domain, IsAPrivateFolderUnderTheRuntimeFolder)
{
    const mode_t before = umask(0);
    EXPECT_EQ(join_and_tell(0), "");
    umask(before);
    EXPECT_EQ(mode_of(runtime.path("stillimage")), 0700U);
    EXPECT_EQ(mode_of(runtime.path("stillimage/cnb")), 0700U);
    EXPECT_EQ(mode_of(runtime.path("stillimage/cnb/default")), 0700U);
    EXPECT_EQ(mode_of(runtime.path("stillimage/cnb/default/registry")), 0600U);
}

TEST_F(Domain, WithoutRuntimeFolderItLiesInTheUsersTemporaryFolder)
{
    unsetenv("XDG_RUNTIME_DIR");
    setenv("TMPDIR", runtime.path().c_str(), 1);
    EXPECT_EQ(join_and_tell(0), "");
    unsetenv("TMPDIR");
    const std::string users = runtime.path("stillimage-" + std::to_string(geteuid()));
    EXPECT_EQ(mode_of(users), 0700U);
    EXPECT_EQ(access((users + "/cnb/default/registry").c_str(), F_OK), 0);
}

TEST_F(Domain, RelativeRuntimeFolderIsIgnored)
{
    setenv("XDG_RUNTIME_DIR", "relative", 1);
    setenv("TMPDIR", runtime.path().c_str(), 1);
    EXPECT_EQ(join_and_tell(0), "");
    unsetenv("TMPDIR");
    EXPECT_NE(access("relative", F_OK), 0);
}

TEST_F(Domain, MissingRuntimeFolderIsCreatedForTheUserOnly)
{
    const std::string missing = runtime.path("not/there");
    setenv("XDG_RUNTIME_DIR", missing.c_str(), 1);
    EXPECT_EQ(join_and_tell(0), "");
    EXPECT_EQ(mode_of(runtime.path("not")), 0700U);
    EXPECT_EQ(mode_of(missing), 0700U);
}

TEST_F(Domain, RuntimeFolderThatCannotBeCreatedIsNamed)
{
    const std::string missing = runtime.write("file", "") + "/below";
    setenv("XDG_RUNTIME_DIR", missing.c_str(), 1);
    EXPECT_EQ(join_and_tell(-1), "cannot use the CNB domain '" + missing + "': Not a directory\n");
}

TEST_F(Domain, JoiningTwiceIsAllowed)
{
    EXPECT_EQ(join_and_tell(0), "");
    EXPECT_EQ(join_and_tell(0), "");
}

TEST_F(Domain, LeavingWithoutJoiningAndTwiceIsAllowed)
{
    platform::cnb_leave_domain();
    EXPECT_EQ(join_and_tell(0), "");
    platform::cnb_leave_domain();
    platform::cnb_leave_domain();
    EXPECT_EQ(platform::cnb_view_domain().limit, 0U);
}

TEST_F(Domain, NamesThatCouldLeaveTheFolderAreInvalid)
{
    for (const char* name : {"", ".", "..", ".hidden", "a/b", "/", "../default"}) {
        EXPECT_FALSE(platform::cnb_domain_name_valid(name)) << name;
    }
    EXPECT_FALSE(platform::cnb_domain_name_valid(std::string(65, 'x')));
    EXPECT_FALSE(platform::cnb_domain_name_valid(std::string_view("a\0b", 3)));
    EXPECT_TRUE(platform::cnb_domain_name_valid(std::string(64, 'x')));
    for (const char* name : {"default", "studio 1", "%s%n", "a..b", "\xC3\xBC"}) {
        EXPECT_TRUE(platform::cnb_domain_name_valid(name)) << name;
    }
}

TEST_F(Domain, InvalidNameIsReportedOnOneLine)
{
    platform::cnb_set_domain("a/b\nc", 0);
    EXPECT_EQ(join_and_tell(-1), "cannot use the CNB domain 'a/b\\x0Ac': a name has 1 to 64 bytes, "
                                 "no '/', and no '.' at its beginning\n");
}

TEST_F(Domain, NameIsNoFormat)
{
    platform::cnb_set_domain("%s%n", 0);
    EXPECT_EQ(join_and_tell(0), "");
    EXPECT_EQ(access(domain_path("%s%n").c_str(), F_OK), 0);
    EXPECT_STREQ(platform::cnb_view_domain().name, "%s%n");
}

TEST_F(Domain, SettingsApplyToTheNextJoin)
{
    platform::cnb_set_domain("one", 1000);
    EXPECT_EQ(join_and_tell(0), "");
    platform::cnb_set_domain("two", 2000);
    EXPECT_STREQ(platform::cnb_view_domain().name, "one");
    EXPECT_EQ(platform::cnb_view_domain().limit, 1000U);
}

TEST_F(Domain, DefaultLimitIsHalfOfTheMemory)
{
    const temporary_folder machine;
    cnb_test::write_file(machine.path("proc/meminfo"), "MemTotal: 1000 kB\nMemAvailable: 900 kB\n");
    platform::the_machine.root = machine.path();
    EXPECT_EQ(join_and_tell(0), "");
    EXPECT_EQ(platform::cnb_view_domain().limit, 512'000U);
}

TEST_F(Domain, DefaultLimitIsHalfOfTheControlGroup)
{
    const temporary_folder machine;
    cnb_test::write_file(machine.path("proc/meminfo"), "MemTotal: 1000 kB\nMemAvailable: 900 kB\n");
    cnb_test::write_file(machine.path("proc/self/cgroup"), "3:memory:/\n");
    cnb_test::write_file(machine.path("proc/self/mountinfo"),
                         "4 3 0:3 / /g rw - cgroup none memory\n");
    cnb_test::write_file(machine.path("g/memory.limit_in_bytes"), "300000\n");
    platform::the_machine.root = machine.path();
    EXPECT_EQ(join_and_tell(0), "");
    EXPECT_EQ(platform::cnb_view_domain().limit, 150'000U);
}

TEST_F(Domain, ViewDescribesTheBuffer)
{
    platform::cnb_set_domain("studio", 5000);
    cnb_total = 1234;
    ASSERT_EQ(cnb_default_buffer_load(), 0);
    const platform::cnb_domain_view view = platform::cnb_view_domain();
    EXPECT_STREQ(view.name, "studio");
    EXPECT_EQ(view.limit, 5000U);
    EXPECT_EQ(view.buffer, 1U);
    EXPECT_EQ(view.buffer_size, 1234U);
}

TEST_F(Domain, SymbolicLinkIsNotFollowed)
{
    const temporary_folder elsewhere;
    make_parent_of_domains();
    std::filesystem::create_directory_symlink(elsewhere.path(), domain_path());
    EXPECT_EQ(join_and_tell(-1),
              "cannot use the CNB domain '" + domain_path() + "': not a folder, or a link\n");
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere.path()));
}

TEST_F(Domain, SymbolicLinkFurtherUpIsNotFollowed)
{
    const temporary_folder elsewhere;
    std::filesystem::create_directory_symlink(elsewhere.path(), runtime.path("stillimage"));
    EXPECT_EQ(join_and_tell(-1), "cannot use the CNB domain '" + runtime.path("stillimage") +
                                     "': not a folder, or a link\n");
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere.path()));
}

TEST_F(Domain, FileInThePlaceOfTheFolderIsReported)
{
    make_parent_of_domains();
    cnb_test::write_file(domain_path(), "");
    EXPECT_EQ(join_and_tell(-1),
              "cannot use the CNB domain '" + domain_path() + "': not a folder, or a link\n");
}

TEST_F(Domain, FolderWritableByOthersIsRefused)
{
    make_parent_of_domains();
    ASSERT_EQ(mkdir(domain_path().c_str(), 0700), 0);
    ASSERT_EQ(chmod(domain_path().c_str(), 0770), 0);
    EXPECT_EQ(join_and_tell(-1),
              "cannot use the CNB domain '" + domain_path() + "': writable by other users\n");
}

TEST_F(Domain, FolderReadableByOthersIsMadePrivate)
{
    make_parent_of_domains();
    ASSERT_EQ(mkdir(domain_path().c_str(), 0700), 0);
    ASSERT_EQ(chmod(domain_path().c_str(), 0755), 0);
    EXPECT_EQ(join_and_tell(0), "");
    EXPECT_EQ(mode_of(domain_path()), 0700U);
}

TEST_F(Domain, FolderOfAnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a folder away";
    }
    make_parent_of_domains();
    ASSERT_EQ(mkdir(domain_path().c_str(), 0700), 0);
    ASSERT_EQ(chown(domain_path().c_str(), 65534, 65534), 0);
    EXPECT_EQ(join_and_tell(-1),
              "cannot use the CNB domain '" + domain_path() + "': owned by another user\n");
}

TEST_F(Domain, RegistryThatIsAFifoIsReported)
{
    make_parent_of_domains();
    ASSERT_EQ(mkdir(domain_path().c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((domain_path() + "/registry").c_str(), 0600), 0);
    EXPECT_EQ(join_and_tell(-1),
              "cannot use the CNB domain '" + domain_path() + "/registry': not a file\n");
}

// Keeps an open registry's record locked, from `first` to the last.
unique_fd lock_records(const std::string& path, uint64_t first)
{
    unique_fd file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_start = static_cast<off_t>(first * 16);
    EXPECT_EQ(fcntl(file.get(), F_OFD_SETLK, &range), 0);
    return file;
}

TEST_F(Domain, NumberIsReservedInTheRegistry)
{
    EXPECT_FALSE(platform::reserve_in_domain());
    EXPECT_EQ(platform::record_in_domain().file, -1);
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    EXPECT_EQ(platform::record_in_domain().offset, 0U);
    ASSERT_TRUE(platform::reserve_in_domain());
    EXPECT_EQ(platform::record_in_domain().offset, 16U);
    EXPECT_GE(platform::record_in_domain().file, 0);
}

TEST_F(Domain, RegistryWhoseNumbersAreAllLockedIsSetAside)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    const unique_fd other = lock_records(domain_path() + "/registry", 1);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(platform::reserve_in_domain());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "CNB registry '" + domain_path() +
                  "/registry': every number is locked; the domain begins a new one\n");
    EXPECT_EQ(platform::record_in_domain().offset, 16U);
    EXPECT_EQ(access((domain_path() + "/registry.blocked").c_str(), F_OK), 0);
    struct stat ours = {};
    struct stat named = {};
    ASSERT_EQ(fstat(platform::record_in_domain().file, &ours), 0);
    ASSERT_EQ(stat((domain_path() + "/registry").c_str(), &named), 0);
    EXPECT_EQ(ours.st_ino, named.st_ino);
}

TEST_F(Domain, KernelWithoutMemoryFilesIsReported)
{
    failing.create_errno = ENOSYS;
    EXPECT_EQ(join_and_tell(-1), "cannot use the CNB domain '" + domain_path() +
                                     "': no memory files: Function not implemented\n");
}

TEST_F(Domain, FolderIsLockedAgainstCleaningPrograms)
{
    EXPECT_EQ(join_and_tell(0), "");
    const unique_fd other(open(domain_path().c_str(), O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(flock(other.get(), LOCK_SH | LOCK_NB), 0);
}

// The registry is written and never mapped, so a full file system causes an error instead of a
// signal.
TEST_F(Domain, FullFileSystemIsRefusedWithItsReason)
{
    child_process child([this] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", runtime.path().c_str(), "tmpfs", 0, "size=16k") != 0) {
            return 77;
        }
        if (platform::cnb_join_domain() != 0) {
            return 1;
        }
        cnb_test::write_file(runtime.path("filler"), std::string(1 << 20, 'x'));
        testing::internal::CaptureStderr();
        cnb_total = 100'000;
        cnb_allocation image;
        const bool refused = cnb_default_buffer_load() == 0 && image_cnb_buffer_fd >= 0 &&
                             !cnb_malloc(&image, 100'000, "Image");
        const std::string messages = testing::internal::GetCapturedStderr();
        return refused && messages.find("No space left on device\n") != std::string::npos ? 0 : 2;
    });
    const int status = child.wait();
    if (status == 77) {
        GTEST_SKIP() << "needs root to mount a small file system";
    }
    EXPECT_EQ(status, 0);
}

// The memory does not come from the file system that holds the registry.
TEST_F(Domain, BufferCanBeLargerThanTheFileSystemOfItsRegistry)
{
    child_process child([this] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", runtime.path().c_str(), "tmpfs", 0, "size=1m") != 0) {
            return 77;
        }
        cnb_total = 8 << 20;
        cnb_allocation image;
        if (cnb_default_buffer_load() != 0 || !cnb_malloc(&image, cnb_total, "Image")) {
            return 1;
        }
        vexa_global_access_cache* cache = vexa_global_access_cache_create();
        unsigned char* bytes = vexa_global_access_cache_quickfetch(cache, image_cnb_buffer, 0,
                                                                   cnb_total, access_write);
        for (uint64_t i = 0; i < cnb_total; i += 4096) {
            bytes[i] = 1;
        }
        return 0;
    });
    const int status = child.wait();
    if (status == 77) {
        GTEST_SKIP() << "needs root to mount a small file system";
    }
    EXPECT_EQ(status, 0);
}

} // namespace
