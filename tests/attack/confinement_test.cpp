// A captured worker tries what its confinement forbids.
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "tests/attack/captured.h"
#include "tests/support/child_process.h"
#include "tests/support/kernel_features.h"
#include "tests/support/refused_calls.h"
#include "tests/support/worker_client.h"

using testing::ElementsAre;
using testing::Pair;
using testing::StartsWith;

namespace {

constexpr uint64_t mebibyte = uint64_t{1} << 20;
constexpr uint64_t gibibyte = uint64_t{1} << 30;

class CapturedWorker : public testing::Test {
protected:
    void SetUp() override
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "a worker with a sanitizer is not confined";
        }
        for (const char* name : {"work", "meta", "sockets"}) {
            std::filesystem::create_directory(home.path(name));
        }
    }

    // A worker in a folder of its own, whose messages go to its log.
    worker::setting setting(const std::vector<std::string>& more = {}) const
    {
        worker::setting how = {{"--file", captured_picture(), "--sock",
                                home.path("sockets/captured"), "--metadir", home.path("meta"),
                                "--no-autoshutdown"}};
        how.arguments.insert(how.arguments.end(), more.begin(), more.end());
        how.working_folder = home.path("work");
        return how;
    }

    attack_results attempt(const std::vector<std::string>& attempts,
                           const std::vector<std::string>& more = {}) const
    {
        const worker started(home, captured(setting(more), attempts));
        return results_of(started, attempts);
    }

    // The attempts that were not refused.
    std::vector<std::string> possible(const std::vector<std::string>& attempts,
                                      const std::vector<std::string>& more = {}) const
    {
        const attack_results results = attempt(attempts, more);
        EXPECT_EQ(results.size(), attempts.size());
        std::vector<std::string> found;
        for (const auto& [name, result] : results) {
            if (!result.starts_with("refused ")) {
                found.push_back(name + ": " + result);
            }
        }
        return found;
    }

    const int landlock = kernel_landlock_version();
    worker_home home;
};

const testing::Matcher<std::vector<std::string>> nothing = testing::IsEmpty();

// --- code and processes -------------------------------------------------------------------------

TEST_F(CapturedWorker, RunsNoProgramAndStartsNothing)
{
    EXPECT_THAT(possible({"execute /bin/true", "fork", "thread"}), nothing);
}

TEST_F(CapturedWorker, BringsInNoCode)
{
    EXPECT_THAT(possible({"executable_memory", "make_executable", "read_implies_execute",
                          "executable_file " + captured_picture()}),
                nothing);
}

TEST_F(CapturedWorker, DaemonIsHeldTheSameInTheBackground)
{
    const std::vector<std::string> attempts = {"execute /bin/true",
                                               "fork",
                                               "thread",
                                               "executable_memory",
                                               "make_executable",
                                               "local_socket",
                                               "bind " + home.path("work/socket"),
                                               "datagram_from_pair " + home.path("work/socket"),
                                               "signal_thread 1"};
    const worker parent(home, captured(setting({"--daemon"}), attempts, "decoding"));
    for (const auto& [name, result] : results_of(parent, attempts)) {
        EXPECT_THAT(result, StartsWith("refused ")) << name;
    }
    EXPECT_EQ(results_of(parent, attempts).size(), attempts.size());
    EXPECT_EQ(run_client(home, {home.path("sockets/captured"), "quit"}), 0);
    EXPECT_TRUE(eventually([this] { return home.sockets().empty(); }));
}

// --- other processes ----------------------------------------------------------------------------

TEST_F(CapturedWorker, ReachesNoOtherProcess)
{
    child_process neighbour([] {
        pause();
        return 0;
    });
    const std::string pid = std::to_string(neighbour.pid());
    std::vector<std::string> attempts;
    for (const char* name : {"signal", "signal_thread", "queue_signal", "own_descriptor",
                             "own_descriptor_extended", "trace", "read_memory", "open_memory",
                             "open_environment", "open_process", "limit_process", "priority"}) {
        attempts.push_back(std::string(name) + ' ' + pid);
    }
    EXPECT_THAT(possible(attempts), nothing);
}

TEST_F(CapturedWorker, OpensNoConnection)
{
    const worker neighbour(home, captured_picture(), {"--metadir", home.path("other")});
    ASSERT_TRUE(neighbour.wait_ready());
    EXPECT_THAT(
        possible({"tcp_socket", "udp_socket", "netlink_socket", "local_socket",
                  "connect " + neighbour.socket(), "connect_stream " + neighbour.socket(),
                  "datagram " + neighbour.socket(), "datagram_from_pair " + neighbour.socket(),
                  "bind " + home.path("work/socket")}),
        nothing);
}

TEST_F(CapturedWorker, IsNotLookedIntoByOthersOfItsUser)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to see what the kernel's files of the process belong to";
    }
    std::filesystem::permissions(home.folder().path(), std::filesystem::perms::all);
    const int status = run_without_privileges([] {
        const worker_home own;
        const worker served(own, captured_picture(), {});
        EXPECT_TRUE(served.wait_ready()) << served.printed();
        struct stat files = {};
        EXPECT_EQ(stat(("/proc/" + std::to_string(served.pid()) + "/mem").c_str(), &files), 0);
        EXPECT_EQ(files.st_uid, 0U); // of a process that is not dumpable
        EXPECT_EQ(open(("/proc/" + std::to_string(served.pid()) + "/mem").c_str(), O_RDONLY), -1);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
}

// --- files --------------------------------------------------------------------------------------

TEST_F(CapturedWorker, ReadsAndChangesNoForeignFile)
{
    if (landlock == 0) {
        GTEST_SKIP() << "this kernel has no rules for files";
    }
    home.folder().write("letter", "private");
    const std::string letter = home.path("letter");
    EXPECT_THAT(possible({"read /etc/passwd", "list /", "list " + home.folder().path(),
                          "read " + letter, "write " + letter, "remove " + letter,
                          "rename " + letter + ":" + home.path("meta/letter"),
                          "link " + letter + ":" + home.path("meta/letter"),
                          "create " + home.path("new"), "make_folder " + home.path("folder"),
                          "make_fifo " + home.path("fifo"), "make_link " + home.path("link")}),
                nothing);
    if (landlock >= 3) {
        EXPECT_THAT(possible({"truncate " + letter}), nothing);
    }
    EXPECT_EQ(home.folder().read("letter"), "private");
}

TEST_F(CapturedWorker, ChangesNoModeAndNoTimes)
{
    const std::string copy = home.path("picture.png");
    std::filesystem::copy_file(captured_picture(), copy);
    worker::setting how = setting();
    how.arguments[1] = copy;
    const std::vector<std::string> attempts = {"change_mode " + copy, "change_times " + copy,
                                               "change_mode_of_open " + copy, "write " + copy,
                                               "truncate " + copy};
    const worker started(home, captured(how, attempts));
    const attack_results results = results_of(started, attempts);
    for (const auto& [name, result] : results) {
        if (landlock == 0 && (name.starts_with("write") || name.starts_with("truncate"))) {
            continue; // the user's own file, on a kernel without rules for files
        }
        EXPECT_THAT(result, StartsWith("refused ")) << name;
    }
    EXPECT_EQ(results.size(), attempts.size());
}

TEST_F(CapturedWorker, WorkingFolderStaysClosedWhenCoreFilesAreUnlimited)
{
    if (landlock == 0) {
        GTEST_SKIP() << "this kernel has no rules for files";
    }
    home.folder().write("work/letter", "private");
    const std::vector<std::string> attempts = {
        "read " + home.path("work/letter"), "write " + home.path("work/letter"),
        "list " + home.path("work"), "create " + home.path("work/new"),
        "remove " + home.path("work/letter")};
    const int status = run_in_child([&] {
        rlimit limit = {};
        getrlimit(RLIMIT_CORE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_CORE, &limit);
        EXPECT_THAT(possible(attempts), nothing);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(CapturedWorker, CoreFilesOnRequestStillDoNotOpenTheWorkingFolderForReading)
{
    if (landlock == 0) {
        GTEST_SKIP() << "this kernel has no rules for files";
    }
    home.folder().write("work/letter", "private");
    EXPECT_THAT(possible({"read " + home.path("work/letter"), "list " + home.path("work"),
                          "remove " + home.path("work/letter")},
                         {"--core-files"}),
                nothing);
}

TEST_F(CapturedWorker, ItsOwnFolderIsAllThatItCanChange)
{
    const std::string file = home.path("meta/file");
    EXPECT_THAT(attempt({"create " + file}), ElementsAre(Pair("create " + file, "allowed")));
}

// --- rights and descriptors ---------------------------------------------------------------------

TEST_F(CapturedWorker, RaisesNoLimitAndStaysUndumpable)
{
    std::vector<std::string> attempts = {"become_dumpable"};
    for (const auto limit : {RLIMIT_AS, RLIMIT_CORE, RLIMIT_NPROC}) {
        attempts.push_back("raise_limit " + std::to_string(static_cast<int>(limit)));
    }
    EXPECT_THAT(possible(attempts), nothing);
}

TEST_F(CapturedWorker, GetsNothingThatItsLauncherLeftOpen)
{
    home.folder().write("secret", "private");
    const int left_open = open(home.path("secret").c_str(), O_RDONLY);
    const int high = fcntl(left_open, F_DUPFD, 300);
    const std::vector<std::string> attempts = {"descriptor " + std::to_string(high)};
    EXPECT_THAT(possible(attempts), nothing);
    close(left_open);
    close(high);
}

// --- memory and disk ----------------------------------------------------------------------------

TEST_F(CapturedWorker, TakesNoMoreMemoryThanItsAddressSpace)
{
    // The limits are those of docs/item.md: 4 GiB for the codecs, the buffer, 256 MiB for the rest,
    // and what was mapped before.
    const uint64_t most = 4 * gibibyte + 512 * mebibyte;
    EXPECT_THAT(possible({"private_memory " + std::to_string(most),
                          "raise_address_space " + std::to_string(most)},
                         {"--domain-limit", "64M"}),
                nothing);
}

TEST_F(CapturedWorker, MakesNoMemoryFilesAndNoPipes)
{
    EXPECT_THAT(possible({"memory_file 4096", "secret_memory", "pipe"}), nothing);
}

// Before the buffer is reserved, while the picture is examined.
TEST_F(CapturedWorker, GrowsItsBufferNoFurtherThanTheDomainsLimit)
{
    const worker started(home, captured(setting({"--stderr-to-log", "--domain-limit", "64M"}),
                                        {"grow_memory_file " + std::to_string(65 * mebibyte),
                                         "grow_memory_file 4096"}));
    ASSERT_TRUE(eventually([this] {
        return home.folder().has("meta/log") &&
               home.folder().read("meta/log").find("attacks are over") != std::string::npos;
    }));
    const std::string log = home.folder().read("meta/log");
    EXPECT_NE(log.find("grow_memory_file 68157440: refused EFBIG\n"), std::string::npos) << log;
    EXPECT_NE(log.find("grow_memory_file 4096: allowed\n"), std::string::npos) << log;
}

// Its messages go into a file of somebody else, which may be of any size.
TEST_F(CapturedWorker, GrowsItsBufferFurtherWhenItsMessagesGoIntoAFile)
{
    EXPECT_THAT(
        possible({"grow_memory_file " + std::to_string(65 * mebibyte)}, {"--domain-limit", "64M"}),
        testing::SizeIs(1));
}

TEST_F(CapturedWorker, WritesNoLargeFilesOnceTheBufferIsReserved)
{
    const std::string file = home.path("meta/large");
    const std::string most = std::to_string(16 * mebibyte);
    const std::string more = std::to_string(16 * mebibyte + 1);
    const worker started(home,
                         captured(setting({"--stderr-to-log"}),
                                  {"create_large " + file + ":" + most,
                                   "create_large " + file + ":" + more, "grow_memory_file 1000000"},
                                  "decoding"));
    ASSERT_TRUE(eventually([this] {
        return home.folder().has("meta/log") &&
               home.folder().read("meta/log").find("attacks are over") != std::string::npos;
    }));
    const std::string log = home.folder().read("meta/log");
    EXPECT_NE(log.find(":" + most + ": allowed\n"), std::string::npos) << log;
    EXPECT_NE(log.find(":" + more + ": refused EFBIG\n"), std::string::npos) << log;
    EXPECT_NE(log.find("grow_memory_file 1000000: refused EPERM\n"), std::string::npos) << log;
}

// --- what SECURITY.md says that it can still do -------------------------------------------------

TEST_F(CapturedWorker, MayUseItsPictureItsFolderAndTheSystemsInformation)
{
    home.folder().write("meta/metadata", "");
    const std::vector<std::string> attempts = {
        "read " + captured_picture(), "read /proc/meminfo", "write " + home.path("meta/metadata"),
        "create " + home.path("meta/file"), "private_memory 1000000"};
    EXPECT_THAT(possible(attempts), testing::SizeIs(attempts.size()));
}

TEST_F(CapturedWorker, SendsNoDatagramsToOthersThanItsServiceManager)
{
    const auto bound = [](const std::string& path) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return fd;
    };
    const unique_fd manager = bound(home.path("manager"));
    const unique_fd other = bound(home.path("other"));
    const std::string attempt = "datagram_from_open_socket " + home.path("other");
    EXPECT_THAT(possible({attempt}), nothing);
    worker::setting how = setting();
    how.more_environment = {"NOTIFY_SOCKET=" + home.path("manager")};
    const worker notifying(home, captured(how, {attempt}));
    EXPECT_THAT(
        results_of(notifying, {attempt}),
        ElementsAre(Pair(attempt, kernel_compares_arguments ? "refused ENOTSOCK" : "allowed")));
}

// The worker ends before it goes into the background, where it would outlive the test.
TEST_F(CapturedWorker, MayStartConfinedProcessesBeforeItIsInTheBackground)
{
    EXPECT_THAT(possible({"fork", "thread", "execute /bin/true"}, {"--daemon", "--identify-only"}),
                ElementsAre("fork: allowed"));
}

// Makes the attempts where the kernel refuses these calls to the worker.
attack_results attempts_without(std::initializer_list<const char*> refused, const worker_home& home,
                                const worker::setting& how,
                                const std::vector<std::string>& attempts)
{
    attack_results results;
    EXPECT_TRUE(refuse_calls(refused));
    const worker started(home, captured(how, attempts));
    results = results_of(started, attempts);
    EXPECT_EQ(results.size(), attempts.size());
    return results;
}

TEST_F(CapturedWorker, ReadsItsUsersFilesWithoutRulesForFiles)
{
    home.folder().write("letter", "private");
    const std::string letter = "read " + home.path("letter");
    EXPECT_EQ(run_in_child([&] {
                  const auto results =
                      attempts_without({"landlock_create_ruleset"}, home, setting(),
                                       {letter, "execute /bin/true", "local_socket"});
                  EXPECT_EQ(results.at(letter), "allowed");
                  EXPECT_EQ(results.at("execute /bin/true"), "refused ENOSYS");
                  EXPECT_EQ(results.at("local_socket"), "refused ENOSYS");
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(CapturedWorker, ConnectsButRunsNoProgramWithoutAFilterForSystemCalls)
{
    if (landlock == 0) {
        GTEST_SKIP() << "this kernel has no rules for files";
    }
    EXPECT_EQ(run_in_child([&] {
                  const auto results =
                      attempts_without({"seccomp", set_seccomp_call}, home, setting(),
                                       {"execute /bin/true", "local_socket", "read /etc/passwd"});
                  EXPECT_EQ(results.at("execute /bin/true"), "refused EACCES");
                  EXPECT_EQ(results.at("local_socket"), "allowed");
                  EXPECT_EQ(results.at("read /etc/passwd"), "refused EACCES");
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(CapturedWorker, OfRootWithAnotherUsersPictureChangesItsMode)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may read another user's picture";
    }
    const std::string copy = home.path("picture.png");
    std::filesystem::copy_file(captured_picture(), copy);
    ASSERT_EQ(chown(copy.c_str(), unprivileged_user, unprivileged_user), 0);
    ASSERT_EQ(chmod(copy.c_str(), 0600), 0);
    worker::setting how = setting();
    how.arguments[1] = copy;
    const std::vector<std::string> attempts = {"change_mode_of_open " + copy};
    const worker started(home, captured(how, attempts));
    EXPECT_EQ(results_of(started, attempts).at(attempts[0]), "allowed");
    how.arguments.emplace_back("--require-confinement");
    how.arguments[3] = home.path("sockets/strict");
    const ended_worker strict = run_worker(home, how);
    EXPECT_EQ(strict.status, 1);
    EXPECT_THAT(strict.printed,
                testing::EndsWith("Cannot confine the worker 'no capabilities': the picture or "
                                  "its metadata belongs to another user\n"));
}

} // namespace
