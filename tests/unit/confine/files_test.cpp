#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <linux/landlock.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/confine/files.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

using platform::core_folder;
using platform::file_rule;
using platform::file_rules;
using platform::known_file_rights;

namespace {

// --- the table ----------------------------------------------------------------------------------

constexpr uint64_t truncate_right = uint64_t{1} << 14;
constexpr uint64_t to_write_anything =
    LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR |
    LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_SOCK |
    LANDLOCK_ACCESS_FS_MAKE_SYM | LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_FIFO |
    LANDLOCK_ACCESS_FS_MAKE_BLOCK | truncate_right;

uint64_t rights_of(const std::vector<file_rule>& rules, const std::string& path)
{
    const auto rule = std::find_if(rules.begin(), rules.end(),
                                   [&](const file_rule& one) { return one.path == path; });
    return rule == rules.end() ? 0 : rule->rights;
}

TEST(ConfinementFileRules, PictureMayOnlyBeRead)
{
    const std::vector<file_rule> rules = file_rules({.picture = 5});
    EXPECT_EQ(rules[0],
              (file_rule{.fd = 5, .rights = LANDLOCK_ACCESS_FS_READ_FILE, .needed = true}));
}

TEST(ConfinementFileRules, MetadataFolderAllowsFiles)
{
    const std::vector<file_rule> rules = file_rules({.metadata_folder = 6});
    EXPECT_EQ(rules[0],
              (file_rule{.fd = 6,
                         .rights = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR |
                                   LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_MAKE_REG |
                                   LANDLOCK_ACCESS_FS_REMOVE_FILE | truncate_right,
                         .needed = true}));
}

TEST(ConfinementFileRules, CoreFilesCanBeCreatedButNotRead)
{
    const std::vector<file_rule> rules = file_rules({.core_folder = "/home/me"});
    EXPECT_EQ(rights_of(rules, "/home/me"),
              LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_WRITE_FILE);
}

TEST(ConfinementFileRules, SocketFolderAllowsRemovalOnly)
{
    const std::vector<file_rule> rules = file_rules({.socket_folder = "/run/s/"});
    EXPECT_EQ(
        rules[0],
        (file_rule{.path = "/run/s/", .rights = LANDLOCK_ACCESS_FS_REMOVE_FILE, .needed = true}));
}

TEST(ConfinementFileRules, OtherPlacesMayOnlyBeRead)
{
    const std::vector<file_rule> rules = file_rules({.memory_groups = {"/groups/a", "/groups"}});
    for (const file_rule& rule : rules) {
        EXPECT_FALSE(rule.needed) << rule.path;
        EXPECT_EQ(rule.fd, -1);
        EXPECT_EQ(rule.rights & to_write_anything,
                  rule.path == "/dev/null" ? LANDLOCK_ACCESS_FS_WRITE_FILE : 0U)
            << rule.path;
        EXPECT_EQ(rule.rights & LANDLOCK_ACCESS_FS_EXECUTE, 0U) << rule.path;
    }
    EXPECT_EQ(rights_of(rules, "/groups/a"), LANDLOCK_ACCESS_FS_READ_FILE);
    EXPECT_EQ(rights_of(rules, "/groups"), LANDLOCK_ACCESS_FS_READ_FILE);
    for (const char* path : {"/proc", "/usr/lib", "/usr/share/zoneinfo"}) {
        EXPECT_EQ(rights_of(rules, path),
                  LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR);
    }
    for (const char* path : {"/", "/etc", "/home", "/tmp", "/dev", "/sys", "/var"}) {
        EXPECT_EQ(rights_of(rules, path), 0U) << path;
    }
}

TEST(ConfinementFileRules, EachVersionOfTheInterfaceHasItsRights)
{
    EXPECT_EQ(known_file_rights(1), 0x1FFFU);
    EXPECT_EQ(known_file_rights(2), 0x3FFFU);
    EXPECT_EQ(known_file_rights(3), 0x7FFFU);
    EXPECT_EQ(known_file_rights(4), 0x7FFFU);
    EXPECT_EQ(known_file_rights(5), 0xFFFFU);
    EXPECT_EQ(known_file_rights(99), 0xFFFFU);
}

TEST(ConfinementCoreFolder, IsWhereTheKernelWouldWriteTheFile)
{
    EXPECT_EQ(core_folder("core", 1, "/place"), "/place");
    EXPECT_EQ(core_folder("core.%p", 1, "/place"), "/place");
    EXPECT_EQ(core_folder("cores/%e", 1, "/place"), "/place/cores");
    EXPECT_EQ(core_folder("/var/cores/%e/core", 1, "/place"), "/var/cores");
    EXPECT_EQ(core_folder("/var/cores/core", 1, "/place"), "/var/cores");
}

TEST(ConfinementCoreFolder, IsNoneWithoutAFileOrInTheRootFolder)
{
    EXPECT_EQ(core_folder("core", 0, "/place"), "");
    EXPECT_EQ(core_folder("", 1, "/place"), "");
    EXPECT_EQ(core_folder("|/usr/lib/collect %p", 1, "/place"), "");
    EXPECT_EQ(core_folder("@/run/collect", 1, "/place"), "");
    EXPECT_EQ(core_folder("core", 1, "/"), "");
    EXPECT_EQ(core_folder("core", 1, ""), "");
    EXPECT_EQ(core_folder("/core.%p", 1, "/place"), "");
}

// --- in force -----------------------------------------------------------------------------------

int interface_version()
{
    return static_cast<int>(
        syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION));
}

class ConfinementFiles : public testing::Test {
protected:
    void SetUp() override
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "sanitizers read other files";
        }
        if (interface_version() < 1) {
            GTEST_SKIP() << "this kernel has no rules for files";
        }
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0); // without it only root may restrict itself
        for (const char* name : {"meta", "run", "run/stillimage", "run/stillimage/cnb",
                                 "run/stillimage/cnb/default", "foreign"}) {
            std::filesystem::create_directory(folder.path(name));
        }
        folder.write("picture", "a picture");
        folder.write("foreign/file", "a secret");
        picture.reset(open(folder.path("picture").c_str(), O_RDONLY | O_CLOEXEC));
        metadata.reset(open(folder.path("meta").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }

    platform::item_places places() const
    {
        return {.picture = picture.get(),
                .metadata_folder = metadata.get(),
                .socket_folder = folder.path("run/")};
    }

    // Runs `work` in a restricted child and returns its exit status; a failed expectation gives
    // status 1.
    int restricted(const std::function<void()>& work) const
    {
        return run_in_child([&] {
            EXPECT_TRUE(platform::restrict_files(file_rules(places())));
            work();
            return testing::Test::HasFailure() ? 1 : 0;
        });
    }

    // 0, or the errno of opening the file.
    int error_of_opening(const std::string& path, int flags) const
    {
        const unique_fd fd(open(path.c_str(), flags | O_CLOEXEC, 0600));
        return fd ? 0 : errno;
    }
    int error_of_opening_ours(const char* name, int flags) const
    {
        return error_of_opening(folder.path(name), flags);
    }

    temporary_folder folder;
    unique_fd picture;
    unique_fd metadata;
};

TEST_F(ConfinementFiles, PictureCanBeReopenedByPathAndByDescriptorButNotWritten)
{
    EXPECT_EQ(restricted([this] {
                  const std::string link = "/proc/self/fd/" + std::to_string(picture.get());
                  EXPECT_EQ(error_of_opening_ours("picture", O_RDONLY), 0);
                  EXPECT_EQ(error_of_opening(link, O_RDONLY), 0);
                  EXPECT_EQ(error_of_opening(link, O_RDWR), EACCES);
                  EXPECT_EQ(truncate(folder.path("picture").c_str(), 0) == 0 ? 0 : errno,
                            interface_version() >= 3 ? EACCES : 0);
              }),
              0);
}

TEST_F(ConfinementFiles, ReplacedPictureCanBeReopenedByItsDescriptor)
{
    std::filesystem::rename(folder.path("foreign/file"), folder.path("picture"));
    EXPECT_EQ(restricted([this] {
                  const std::string link = "/proc/self/fd/" + std::to_string(picture.get());
                  EXPECT_EQ(error_of_opening(link, O_RDONLY), 0);
                  EXPECT_EQ(error_of_opening_ours("picture", O_RDONLY), EACCES);
              }),
              0);
}

TEST_F(ConfinementFiles, OtherFilesCanNeitherBeReadNorChanged)
{
    EXPECT_EQ(restricted([this] {
                  EXPECT_EQ(error_of_opening_ours("foreign/file", O_RDONLY), EACCES);
                  EXPECT_EQ(error_of_opening_ours("foreign/file", O_WRONLY), EACCES);
                  EXPECT_EQ(error_of_opening_ours("foreign/new", O_WRONLY | O_CREAT), EACCES);
                  EXPECT_EQ(error_of_opening_ours("foreign", O_RDONLY | O_DIRECTORY), EACCES);
                  EXPECT_EQ(error_of_opening("/etc/passwd", O_RDONLY), EACCES);
                  EXPECT_EQ(unlink(folder.path("foreign/file").c_str()), -1);
                  EXPECT_EQ(errno, EACCES);
                  EXPECT_EQ(mkdir(folder.path("new").c_str(), 0700), -1);
                  EXPECT_EQ(errno, EACCES);
                  char* const words[] = {nullptr};
                  EXPECT_EQ(execve("/bin/true", words, words), -1);
                  EXPECT_EQ(errno, EACCES);
              }),
              0);
    EXPECT_EQ(folder.read("foreign/file"), "a secret");
}

TEST_F(ConfinementFiles, MetadataCanBeWrittenRenamedAndRemoved)
{
    EXPECT_EQ(restricted([this] {
                  EXPECT_EQ(error_of_opening_ours("meta/new", O_RDWR | O_CREAT | O_EXCL), 0);
                  EXPECT_EQ(error_of_opening_ours("meta/new", O_RDWR | O_TRUNC), 0);
                  EXPECT_EQ(renameat(metadata.get(), "new", metadata.get(), "metadata"), 0);
                  EXPECT_EQ(linkat(metadata.get(), "metadata", metadata.get(), "second", 0), 0);
                  EXPECT_EQ(unlinkat(metadata.get(), "second", 0), 0);
                  EXPECT_EQ(error_of_opening_ours("meta", O_RDONLY | O_DIRECTORY), 0);
                  EXPECT_EQ(symlinkat("x", metadata.get(), "link"), -1);
              }),
              0);
    EXPECT_TRUE(folder.has("meta/metadata"));
}

TEST_F(ConfinementFiles, SocketCanBeRemovedButNotBound)
{
    const auto error_of_binding = [this](const char* name) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, folder.path(name).c_str(), sizeof address.sun_path - 1);
        const unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        return bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0
                                                                                          : errno;
    };
    ASSERT_EQ(error_of_binding("run/s"), 0);
    EXPECT_EQ(restricted([&] {
                  EXPECT_EQ(unlink(folder.path("run/s").c_str()), 0);
                  EXPECT_EQ(error_of_binding("run/s"), EACCES);
                  EXPECT_EQ(error_of_opening_ours("run/file", O_RDWR | O_CREAT), EACCES);
              }),
              0);
}

TEST_F(ConfinementFiles, CoreFolderAllowsNewFilesThatCannotBeRead)
{
    std::filesystem::create_directory(folder.path("cores"));
    folder.write("cores/letter", "private");
    platform::item_places with_cores = places();
    with_cores.core_folder = folder.path("cores");
    EXPECT_EQ(run_in_child([&] {
                  EXPECT_TRUE(platform::restrict_files(file_rules(with_cores)));
                  EXPECT_EQ(error_of_opening_ours("cores/core", O_WRONLY | O_CREAT | O_EXCL), 0);
                  EXPECT_EQ(error_of_opening_ours("cores/core", O_RDONLY), EACCES);
                  EXPECT_EQ(error_of_opening_ours("cores/letter", O_RDONLY), EACCES);
                  EXPECT_EQ(error_of_opening_ours("cores", O_RDONLY | O_DIRECTORY), EACCES);
                  EXPECT_EQ(unlink(folder.path("cores/letter").c_str()), -1);
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(ConfinementFiles, DomainsAreOutOfReach)
{
    folder.write("run/stillimage/cnb/default/registry", "");
    EXPECT_EQ(restricted([this] {
                  const std::string domains = folder.path("run/stillimage/cnb");
                  EXPECT_EQ(mkdir((domains + "/new").c_str(), 0700), -1);
                  EXPECT_EQ(error_of_opening(domains, O_RDONLY | O_DIRECTORY), EACCES);
                  EXPECT_EQ(error_of_opening(domains + "/default/registry", O_RDWR), EACCES);
                  EXPECT_EQ(error_of_opening(domains + "/default/registry", O_RDONLY), EACCES);
                  EXPECT_EQ(error_of_opening(domains + "/default/new", O_RDWR | O_CREAT), EACCES);
              }),
              0);
}

TEST_F(ConfinementFiles, KernelInformationAndTheNullDeviceStayAvailable)
{
    EXPECT_EQ(restricted([this] {
                  for (const char* path : {"/proc/meminfo", "/proc/self/status", "/dev/urandom"}) {
                      EXPECT_EQ(error_of_opening(path, O_RDONLY), 0) << path;
                  }
                  EXPECT_EQ(error_of_opening("/proc/self/fd", O_RDONLY | O_DIRECTORY), 0);
                  EXPECT_EQ(error_of_opening("/dev/null", O_RDWR), 0);
                  EXPECT_EQ(error_of_opening("/proc/self/oom_score_adj", O_WRONLY), EACCES);
              }),
              0);
}

TEST_F(ConfinementFiles, MemoryCanBeReopenedForReading)
{
    EXPECT_EQ(restricted([this] {
                  const int memory = memfd_create("m", MFD_CLOEXEC);
                  EXPECT_EQ(error_of_opening("/proc/self/fd/" + std::to_string(memory), O_RDONLY),
                            0);
              }),
              0);
}

TEST_F(ConfinementFiles, PictureOutsideAllFoldersNeedsNoRule)
{
    picture.reset(memfd_create("picture", MFD_CLOEXEC));
    EXPECT_EQ(restricted([this] {
                  const std::string link = "/proc/self/fd/" + std::to_string(picture.get());
                  EXPECT_EQ(error_of_opening(link, O_RDONLY), 0);
              }),
              0);
}

TEST_F(ConfinementFiles, NothingIsInForceWhenARequiredRuleFails)
{
    EXPECT_EQ(run_in_child([this] {
                  platform::item_places broken = places();
                  broken.socket_folder = folder.path("missing/");
                  EXPECT_FALSE(platform::restrict_files(file_rules(broken)));
                  broken = places();
                  broken.picture = 999;
                  EXPECT_FALSE(platform::restrict_files(file_rules(broken)));
                  EXPECT_EQ(error_of_opening_ours("foreign/file", O_RDONLY), 0);
                  broken = places();
                  broken.memory_groups = {folder.path("missing")};
                  EXPECT_TRUE(platform::restrict_files(file_rules(broken)));
                  EXPECT_EQ(error_of_opening_ours("foreign/file", O_RDONLY), EACCES);
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

// --- other restrictions, if the kernel supports them ---------------------------------------------

TEST_F(ConfinementFiles, TcpIsRefused)
{
    if (interface_version() < 4) {
        GTEST_SKIP() << "this kernel has no rules for TCP";
    }
    EXPECT_EQ(restricted([] {
                  const unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
                  sockaddr_in address = {};
                  address.sin_family = AF_INET;
                  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                  const auto* any = reinterpret_cast<const sockaddr*>(&address);
                  EXPECT_EQ(bind(fd.get(), any, sizeof address), -1);
                  EXPECT_EQ(errno, EACCES);
                  EXPECT_EQ(connect(fd.get(), any, sizeof address), -1);
                  EXPECT_EQ(errno, EACCES);
              }),
              0);
}

TEST_F(ConfinementFiles, SignalsReachOnlyTheProcessItselfAndItsChildren)
{
    if (interface_version() < 6) {
        GTEST_SKIP() << "this kernel has no rules for signals";
    }
    EXPECT_EQ(restricted([] {
                  EXPECT_EQ(kill(getppid(), 0), -1);
                  EXPECT_EQ(errno, EPERM);
                  EXPECT_EQ(kill(getpid(), 0), 0);
              }),
              0);
}

TEST_F(ConfinementFiles, AbstractSocketsAreReachableWhenConnectedBefore)
{
    if (interface_version() < 6) {
        GTEST_SKIP() << "this kernel has no rules for abstract sockets";
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string name = "stillimage-test-" + std::to_string(getpid());
    std::copy(name.begin(), name.end(), address.sun_path + 1);
    const auto* any = reinterpret_cast<const sockaddr*>(&address);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    const unique_fd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(manager.get(), any, size), 0);
    const unique_fd connected(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(connected.get(), any, size), 0);
    EXPECT_EQ(restricted([&] {
                  const unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
                  EXPECT_EQ(sendto(fd.get(), "x", 1, MSG_DONTWAIT, any, size), -1);
                  EXPECT_EQ(send(connected.get(), "x", 1, MSG_DONTWAIT), 1);
              }),
              0);
}

} // namespace
