// A confined worker: the kernel reports the confinement, and the worker still serves its clients,
// reports to its host and writes its metadata. It also works where confinement is not available.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json11.hpp>

#include "client/stillimage_client.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "tests/support/child_process.h"
#include "tests/support/file_contents.h"
#include "tests/support/kernel_features.h"
#include "tests/support/refused_calls.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/peacock-420.jpg";

// The value after `key` in the first line of /proc/PID/`file` that begins with it; "" when none
// does.
std::string kernel_value(pid_t pid, const char* file, const std::string& key)
{
    std::ifstream lines("/proc/" + std::to_string(pid) + "/" + file);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key)) {
            const size_t begin = line.find_first_not_of(" \t", key.size());
            return begin == std::string::npos ? "" : line.substr(begin);
        }
    }
    return "";
}

class Confined : public testing::Test {
protected:
    // No daemon outlives its test, even when an expectation fails.
    void TearDown() override
    {
        for (const std::string& socket : home.sockets()) {
            run_client(home, {socket, "quit"});
        }
    }

    // The worker serves a frame, accepts a metadata value and ends on request.
    void expect_works(worker& served)
    {
        ASSERT_TRUE(served.wait_ready()) << served.printed();
        const held_client client = connect_to(served.socket());
        EXPECT_NE(take_frame(client), nullptr);
        EXPECT_EQ(stillimage_set_metadata(client.get(), "colour", "green", 30'000), STILLIMAGE_OK);
        EXPECT_EQ(stillimage_quit(client.get(), 30'000), STILLIMAGE_OK);
        EXPECT_EQ(served.wait_end(), 0) << served.printed();
        EXPECT_TRUE(home.sockets().empty());
    }

    std::string copy_to(const std::string& name) const
    {
        return home.folder().write(name, read_text(picture));
    }

    worker_home home;
};

TEST_F(Confined, KernelReportsTheConfinementOfAServingWorker)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "only new privileges are given up under a sanitizer";
    }
    worker served(home, picture, {"--domain-limit", "256M"});
    ASSERT_TRUE(served.wait_ready());
    EXPECT_EQ(kernel_value(served.pid(), "status", "NoNewPrivs:"), "1");
    EXPECT_EQ(kernel_value(served.pid(), "status", "Seccomp:"), "2");
    const std::string limit = kernel_value(served.pid(), "limits", "Max address space");
    EXPECT_THAT(limit, EndsWith("bytes     "));
    const uint64_t bytes = std::strtoull(limit.c_str(), nullptr, 10);
    EXPECT_GT(bytes, uint64_t{512} << 20);
    EXPECT_LT(bytes, (uint64_t{4} << 30) + (uint64_t{600} << 20));
    expect_works(served);
}

TEST_F(Confined, DaemonStaysConfined)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "only new privileges are given up under a sanitizer";
    }
    worker parent(home, picture, {"--daemon"});
    EXPECT_EQ(parent.wait_end(), 0);
    ASSERT_EQ(run_client(home, {parent.socket(), "wait", "--timeout", "20"}), 0)
        << parent.printed();
    const int daemon = std::atoi(read_text(parent.socket() + ".lock").c_str());
    ASSERT_GT(daemon, 0);
    EXPECT_EQ(kernel_value(daemon, "status", "NoNewPrivs:"), "1");
    EXPECT_EQ(kernel_value(daemon, "status", "Seccomp:"), "2");
    EXPECT_EQ(run_client(home, {parent.socket(), "quit"}), 0);
    EXPECT_TRUE(eventually([this] { return home.sockets().empty(); }));
}

TEST_F(Confined, LowerInheritedLimitIsKept)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "sanitizers need more address space";
    }
    worker::setting how = {{"--file", picture, "--sock", home.path("s"), "--no-autoshutdown"}};
    how.address_space = uint64_t{300} << 20;
    worker served(home, how);
    ASSERT_EQ(run_client(home, {home.path("s"), "wait", "--timeout", "20"}), 0);
    EXPECT_THAT(kernel_value(served.pid(), "limits", "Max address space"),
                StartsWith("314572800 "));
    EXPECT_EQ(run_client(home, {home.path("s"), "quit"}), 0);
    EXPECT_EQ(served.wait_end(), 0);
}

// --- places -------------------------------------------------------------------------------------

TEST_F(Confined, PictureMetadataAndSocketInOneFolderWork)
{
    std::filesystem::create_directory(home.path("one"));
    const std::string path = copy_to("one/picture.jpg");
    worker::setting how = {{"--file", "picture.jpg", "--metadir", ".", "--sock", "s", "--daemon",
                            "--no-autoshutdown", "--stderr-to-log"}};
    how.working_folder = home.path("one");
    worker parent(home, how);
    EXPECT_EQ(parent.wait_end(), 0);
    const std::string socket = home.path("one/s");
    EXPECT_EQ(run_client(home, {socket, "wait", "--timeout", "20"}), 0);
    EXPECT_EQ(run_client(home, {socket, "set", "colour", "green"}), 0);
    EXPECT_EQ(run_client(home, {socket, "quit"}), 0);
    EXPECT_TRUE(eventually([this] { return home.sockets().empty(); }));
    EXPECT_TRUE(eventually([this] {
        return home.folder().read("one/metadata").find("colour = green\n") != std::string::npos;
    }));
    EXPECT_THAT(home.folder().read("one/log"), HasSubstr("Caller requested to exit\n"));
    EXPECT_EQ(read_text(path), read_text(picture));
}

TEST_F(Confined, PictureBehindALinkIsServedAfterItsRemoval)
{
    const std::string path = copy_to("first.jpg");
    std::filesystem::create_symlink(path, home.path("link.jpg"));
    worker served(home, home.path("link.jpg"), {"--slow-decode"});
    ASSERT_TRUE(served.wait_printed("Using CNB buffer"));
    std::filesystem::remove(path);
    expect_works(served);
}

TEST_F(Confined, WorkerThatWaitsIsServedThoughTheDomainFolderIsRemoved)
{
    worker first(home, picture, {"--domain-limit", "40K"});
    ASSERT_TRUE(first.wait_ready()) << first.printed();
    worker second(home, picture, {"--domain-limit", "40K", "--metadir", home.path("second")});
    ASSERT_TRUE(eventually([&] { return access(second.socket().c_str(), F_OK) == 0; }));
    pause_ms(50);
    EXPECT_EQ(second.printed().find("Using CNB buffer"), std::string::npos);
    std::filesystem::remove_all(home.path("run/stillimage/cnb/default"));
    pause_ms(50);
    EXPECT_EQ(second.printed().find("Using CNB buffer"), std::string::npos);
    EXPECT_EQ(run_client(home, {first.socket(), "quit"}), 0);
    ASSERT_TRUE(second.wait_ready()) << second.printed();
}

// The core files that a worker leaves in its working folder when it aborts with every size allowed.
// The kernel writes one there only when its pattern names no other folder, and no program that
// receives the core.
std::vector<std::filesystem::path> core_files(const worker_home& home,
                                              const std::vector<std::string>& switches)
{
    const std::string work = home.path("work");
    std::filesystem::create_directory(work);
    const int status = run_in_child([&] {
        rlimit limit = {};
        getrlimit(RLIMIT_CORE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_CORE, &limit);
        worker::setting how = {{"--file", picture, "--sock", home.path("s"), "--no-autoshutdown"}};
        how.arguments.insert(how.arguments.end(), switches.begin(), switches.end());
        how.working_folder = work;
        worker served(home, how);
        EXPECT_EQ(run_client(home, {home.path("s"), "wait", "--timeout", "20"}), 0);
        served.send(SIGABRT);
        EXPECT_EQ(served.wait_end(), -SIGABRT);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
    std::vector<std::filesystem::path> found;
    for (const auto& entry : std::filesystem::directory_iterator(work)) {
        found.push_back(entry.path());
    }
    return found;
}

bool core_files_can_be_written()
{
    const std::string pattern = read_text("/proc/sys/kernel/core_pattern");
    rlimit limit = {};
    return getrlimit(RLIMIT_CORE, &limit) == 0 && limit.rlim_max != 0 &&
           pattern.find_first_of("|@/") == std::string::npos && !platform::sanitized_build;
}

TEST_F(Confined, AbortWritesACoreFileWhenThatIsWanted)
{
    if (!core_files_can_be_written()) {
        GTEST_SKIP() << "core files are not written into the working folder here";
    }
    const auto found = core_files(home, {"--core-files"});
    ASSERT_EQ(found.size(), 1U);
    EXPECT_GT(std::filesystem::file_size(found[0]), 0U);
}

TEST_F(Confined, AbortWritesNoCoreFileOtherwise)
{
    if (!core_files_can_be_written()) {
        GTEST_SKIP() << "core files are not written into the working folder here";
    }
    EXPECT_TRUE(core_files(home, {}).empty());
}

// --- confinement is refused ---------------------------------------------------------------------

TEST_F(Confined, RequiredConfinementThatIsRefusedEndsTheWorker)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "a sanitizer ends a program that cannot query its limits";
    }
    const int status = run_in_child([this] {
        EXPECT_TRUE(refuse_calls({"landlock_create_ruleset"}, EOPNOTSUPP));
        const ended_worker ended = run_worker(
            home, {{"--file", picture, "--sock", home.path("s"), "--require-confinement"}});
        EXPECT_EQ(ended.status, 1);
        EXPECT_THAT(ended.printed,
                    EndsWith("Cannot confine the worker 'files': Operation not supported\n"));
        EXPECT_TRUE(home.sockets().empty());
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Confined, RequiredConfinementThatIsInForceChangesNothing)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "only new privileges are given up under a sanitizer";
    }
    if (kernel_landlock_version() == 0) {
        GTEST_SKIP() << "this kernel has no rules for files";
    }
    worker served(home, picture, {"--require-confinement"});
    expect_works(served);
}

// --- what is in force is shown ------------------------------------------------------------------

json11::Json shown_confinement(const worker_home& home, const std::string& socket)
{
    std::string printed;
    std::string error;
    EXPECT_EQ(run_client(home, {socket, "status"}, &printed), 0);
    return json11::Json::parse(printed, error)["process"]["confinement"];
}

TEST_F(Confined, StatusShowsEveryMeasureInForce)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "only new privileges are given up under a sanitizer";
    }
    worker::setting how = {{"--file", picture, "--sock", home.path("s"), "--no-autoshutdown",
                            "--metadir", home.path("meta"), "--stderr-to-log"}};
    const worker served(home, how);
    ASSERT_EQ(run_client(home, {home.path("s"), "wait", "--timeout", "20"}), 0);
    const json11::Json shown = shown_confinement(home, home.path("s"));
    for (const auto& [name, value] : shown.object_items()) {
        if (name == "landlock") {
            EXPECT_EQ(value.int_value(), kernel_landlock_version());
        } else if (name == "files") {
            EXPECT_EQ(value.bool_value(), kernel_landlock_version() > 0);
        } else if (name == "memory protection") {
            EXPECT_EQ(value.bool_value(), kernel_protects_memory());
        } else if (name == "own files") {
            EXPECT_EQ(value.bool_value(), kernel_compares_arguments);
        } else {
            EXPECT_TRUE(value.bool_value()) << name;
        }
    }
    EXPECT_EQ(shown.object_items().size(), 12U);
    EXPECT_EQ(run_client(home, {home.path("s"), "quit"}), 0);
}

TEST_F(Confined, StatusShowsWhatIsNotInForce)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "a sanitizer ends a program that cannot query its limits";
    }
    const int status = run_in_child([this] {
        EXPECT_TRUE(refuse_confinement());
        const worker served(home, picture, {"--core-files"});
        EXPECT_TRUE(served.wait_ready());
        const json11::Json shown = shown_confinement(home, served.socket());
        for (const char* name : {"no new privileges", "address space", "files", "system calls",
                                 "no core files", "file sizes", "no processes"}) {
            EXPECT_TRUE(shown[name].is_bool()) << name;
            EXPECT_FALSE(shown[name].bool_value()) << name;
        }
        EXPECT_EQ(shown["landlock"].int_value(), 0);
        EXPECT_EQ(run_client(home, {served.socket(), "quit"}), 0);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Confined, DaemonGivesUpProcessesInTheBackground)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "only new privileges are given up under a sanitizer";
    }
    worker parent(home, picture, {"--daemon"});
    EXPECT_EQ(parent.wait_end(), 0);
    ASSERT_EQ(run_client(home, {parent.socket(), "wait", "--timeout", "20"}), 0);
    EXPECT_TRUE(shown_confinement(home, parent.socket())["no processes"].bool_value());
    const int daemon = std::atoi(read_text(parent.socket() + ".lock").c_str());
    EXPECT_EQ(kernel_value(daemon, "status", "Seccomp_filters:"),
              kernel_compares_arguments ? "3" : "2");
    EXPECT_THAT(kernel_value(daemon, "limits", "Max processes"), StartsWith("0 "));
}

TEST_F(Confined, WorkerThatCannotConfineItselfStillServes)
{
    if (platform::sanitized_build) {
        GTEST_SKIP() << "a sanitizer ends a program that cannot query its limits";
    }
    const int status = run_in_child([this] {
        EXPECT_TRUE(refuse_confinement());
        {
            worker served(home, picture, {"--metadir", home.path("meta")});
            EXPECT_TRUE(served.wait_ready());
            EXPECT_EQ(kernel_value(served.pid(), "status", "Seccomp_filters:"), "1"); // the test's
            expect_works(served);
            EXPECT_THAT(home.folder().read("meta/metadata"), HasSubstr("colour = green\n"));
            EXPECT_EQ(served.printed().find("not permitted"), std::string::npos);
        }
        worker parent(home, picture, {"--daemon"});
        EXPECT_EQ(parent.wait_end(), 0);
        EXPECT_EQ(run_client(home, {parent.socket(), "wait", "--timeout", "20"}), 0);
        EXPECT_EQ(run_client(home, {parent.socket(), "quit"}), 0);
        EXPECT_TRUE(eventually([this] { return home.sockets().empty(); }));
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
}

} // namespace
