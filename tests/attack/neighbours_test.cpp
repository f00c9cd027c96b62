// A captured worker tries to harm other workers: their sockets, their files, their domain.
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "tests/attack/captured.h"
#include "tests/support/child_process.h"
#include "tests/support/kernel_features.h"
#include "tests/support/refused_calls.h"

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/png/basn2c08.png";

ino_t inode_of(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

class Neighbours : public testing::Test {
protected:
    void SetUp() override
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "a worker with a sanitizer is not confined";
        }
        if (!kernel_compares_arguments) {
            GTEST_SKIP() << "this architecture's calls cannot be compared";
        }
        std::filesystem::create_directories(home.path("shared/folder"));
    }

    void expect_refused(const std::vector<std::string>& attempts,
                        const std::vector<std::string>& more_arguments = {})
    {
        worker::setting how = {
            {"--file", captured_picture(), "--sock", home.path("captured"), "--no-autoshutdown"}};
        how.arguments.insert(how.arguments.end(), more_arguments.begin(), more_arguments.end());
        const worker started(home, captured(how, attempts));
        const attack_results results = results_of(started, attempts);
        EXPECT_EQ(results.size(), attempts.size());
        for (const auto& [attempt, result] : results) {
            EXPECT_THAT(result, StartsWith("refused ")) << attempt;
        }
    }

    // A worker that serves at the socket of this name.
    std::unique_ptr<worker> neighbour(const std::string& name, std::vector<std::string> more = {})
    {
        worker::setting how = {{"--file", picture, "--sock", home.path(name), "--no-autoshutdown"}};
        how.arguments.insert(how.arguments.end(), more.begin(), more.end());
        auto started = std::make_unique<worker>(home, how);
        EXPECT_EQ(run_client(home, {home.path(name), "wait", "--timeout", "20"}), 0)
            << started->printed();
        return started;
    }

    // The file stays what it is, whatever the captured worker does to it.
    void expect_kept(const std::vector<std::string>& paths,
                     const std::vector<std::string>& more_arguments)
    {
        std::vector<std::string> attempts;
        std::vector<ino_t> before;
        for (const std::string& path : paths) {
            before.push_back(inode_of(path));
            ASSERT_NE(before.back(), 0U) << path;
            for (const char* name : {"remove ", "remove_at ", "rename_at ", "replace_at "}) {
                attempts.push_back(name + path);
            }
            attempts.push_back("rename " + path + ":" + path + ".moved");
            attempts.push_back("remove_by_end_of_name " + path);
        }
        attempts.push_back("overwrite_names");
        attempts.push_back("swap_folders " + paths.front());
        expect_refused(attempts, more_arguments);
        for (size_t i = 0; i < paths.size(); ++i) {
            EXPECT_EQ(inode_of(paths[i]), before[i]) << paths[i];
        }
    }

    // Everything that may lie in the folders of a worker whose files have the names `captured` and
    // `captured.lock`, beside a worker at `other`.
    std::vector<std::string> files_of_others()
    {
        return {home.folder().write("d.lock", "ends like the worker's own lock"),
                home.folder().write("file", "beside the worker's socket"),
                home.folder().write("shared/file", "beside the worker's metadata"),
                home.folder().write("shared/folder/metadata", "below the worker's metadata"),
                home.path("other"),
                home.path("other.lock")};
    }

    std::string registry(const std::string& domain = "default") const
    {
        return home.path("run/stillimage/cnb/" + domain + "/registry");
    }

    worker_home home;
};

TEST_F(Neighbours, SocketsOfOthersAreOutOfReach)
{
    const auto other = neighbour("other");
    const ino_t socket = inode_of(home.path("other"));
    expect_refused({"connect " + home.path("other"), "connect_stream " + home.path("other"),
                    "bind " + home.path("new"), "bind " + home.path("other"),
                    "datagram " + home.path("other"), "datagram_from_pair " + home.path("other"),
                    "local_socket"});
    EXPECT_EQ(inode_of(home.path("other")), socket);
    EXPECT_TRUE(other->is_running());
    EXPECT_EQ(run_client(home, {home.path("other"), "quit"}), 0);
    EXPECT_EQ(other->wait_end(), 0);
}

TEST_F(Neighbours, FilesOfOthersCannotBeRemovedOrReplaced)
{
    const auto other = neighbour("other");
    expect_kept(files_of_others(), {"--metadir", home.path("shared")});
}

// As before, where the kernel has no rules for files.
TEST_F(Neighbours, FilesOfOthersAreSafeWithoutRulesForFiles)
{
    const int status = run_in_child([this] {
        EXPECT_TRUE(refuse_calls({"landlock_create_ruleset"}, ENOSYS));
        const auto other = neighbour("other");
        expect_kept(files_of_others(), {"--metadir", home.path("shared")});
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Neighbours, CapturedWorkerCanStillBeEndedAndCleansUp)
{
    worker::setting how = {{"--file", captured_picture(), "--sock", home.path("captured"),
                            "--metadir", home.path("shared"), "--no-autoshutdown"}};
    const std::vector<std::string> attempts = {"remove_at " + home.folder().write("file", "")};
    worker started(home, captured(how, attempts));
    ASSERT_EQ(results_of(started, attempts).size(), 1U);
    ASSERT_EQ(run_client(home, {home.path("captured"), "wait", "--timeout", "20"}), 0);
    EXPECT_EQ(run_client(home, {home.path("captured"), "set", "colour", "green"}), 0);
    EXPECT_EQ(run_client(home, {home.path("captured"), "quit"}), 0);
    EXPECT_EQ(started.wait_end(), 0) << started.printed();
    EXPECT_THAT(home.folder().read("shared/metadata"), HasSubstr("colour = green\n"));
    std::filesystem::remove(home.path("shared/metadata"));
    std::filesystem::remove(home.path("shared/metadata.lock"));
    EXPECT_TRUE(std::filesystem::is_empty(home.path("shared/folder")));
    std::filesystem::remove(home.path("shared/folder"));
    EXPECT_TRUE(std::filesystem::is_empty(home.path("shared")));
    EXPECT_EQ(inode_of(home.path("captured")), 0U);
    EXPECT_EQ(inode_of(home.path("captured.lock")), 0U);
}

// What SECURITY.md says that it can still do.
TEST_F(Neighbours, CapturedWorkerMayRemoveItsOwnFilesAndOverwriteOthersInItsFolder)
{
    const std::string file = home.folder().write("shared/file", "beside the worker's metadata");
    const std::vector<std::string> attempts = {"write " + file,
                                               "remove_by_end_of_name " + home.path("captured")};
    worker::setting how = {{"--file", captured_picture(), "--sock", home.path("captured"),
                            "--metadir", home.path("shared"), "--no-autoshutdown"}};
    worker started(home, captured(how, attempts));
    for (const auto& [attempt, result] : results_of(started, attempts)) {
        EXPECT_EQ(result, "allowed") << attempt;
    }
    EXPECT_EQ(inode_of(home.path("captured.lock")), 0U);
}

// --- the domain ---------------------------------------------------------------------------------

TEST_F(Neighbours, RegistryCannotBeLockedOrChanged)
{
    const auto other = neighbour("other");
    expect_refused({"lock_registry " + registry(), "write_registry " + registry()});
    expect_refused({"lock_registry " + registry(), "write_registry " + registry()},
                   {"--identify-only"});
}

TEST_F(Neighbours, OtherDomainsAreOutOfReach)
{
    if (kernel_landlock_version() == 0) {
        GTEST_SKIP() << "this kernel has no rules for files";
    }
    const auto other = neighbour("other", {"--domain", "other"});
    expect_refused({"lock_registry " + registry("other"), "read " + registry("other"),
                    "write " + registry("other"), "read " + registry(),
                    "create " + home.path("run/stillimage/cnb/other/new"),
                    "make_folder " + home.path("run/stillimage/cnb/new"),
                    "list " + home.path("run/stillimage/cnb")});
}

// All that a captured worker can do to its domain is what the largest picture would do.
TEST_F(Neighbours, CapturedWorkerTakesOneBufferOfItsDomainAtMost)
{
    const std::string attempt = "claim_everything " + registry();
    worker::setting how = {{"--file", captured_picture(), "--sock", home.path("captured"),
                            "--no-autoshutdown", "--domain-limit", "5G"}};
    worker started(home, captured(how, {attempt}));
    EXPECT_EQ(results_of(started, {attempt})[attempt], "allowed");
    const auto other = neighbour("other", {"--domain-limit", "5G"});
}

// As a program outside of any confinement could.
TEST_F(Neighbours, WorkersStartThoughSomebodyLocksTheWholeRegistry)
{
    const auto first = neighbour("first");
    const unique_fd file(open(registry().c_str(), O_RDWR | O_CLOEXEC));
    struct flock others = {};
    others.l_type = F_WRLCK;
    others.l_start = 32; // all but the first worker's, which nobody else can lock
    ASSERT_EQ(fcntl(file.get(), F_OFD_SETLK, &others), 0);
    others.l_start = 0;
    others.l_len = 16;
    ASSERT_EQ(fcntl(file.get(), F_OFD_SETLK, &others), 0);
    const auto second = neighbour("second");
    EXPECT_THAT(second->printed(), HasSubstr("every number is locked"));
    const auto third = neighbour("third");
    EXPECT_THAT(third->printed(), Not(HasSubstr("every number is locked")));
}

} // namespace
