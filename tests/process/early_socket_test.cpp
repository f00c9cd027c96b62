// The socket of a worker that is starting: it exists before the picture is examined, or the start
// fails. A worker that ends early leaves nothing of it behind.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/child_process.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/refused_calls.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

namespace fs = std::filesystem;

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/peacock-420.jpg";

class EarlySocket : public testing::Test {
protected:
    // No daemon outlives its test, even when an expectation fails.
    void TearDown() override
    {
        for (const std::string& left : home.sockets()) {
            run_client(home, {left, "quit"});
        }
    }

    // The worker ends with status 1 and prints the path and the reason, with and without --daemon.
    void expect_refused(const std::string& path, const std::string& reason)
    {
        expect_refused(path, path, reason);
    }

    void expect_refused(const std::string& path, const std::string& named,
                        const std::string& reason)
    {
        for (const char* more : {"--no-autoshutdown", "--daemon"}) {
            const ended_worker ended =
                run_worker(home, {{"--file", picture, "--sock", path, more}});
            EXPECT_EQ(ended.status, 1) << more;
            EXPECT_THAT(ended.printed, HasSubstr(named)) << more;
            EXPECT_THAT(ended.printed, EndsWith(reason + "\nFailed to obtain derived params\n"));
        }
    }

    // A grey picture whose buffer takes a little more than `megabytes`.
    std::string large_picture(int megabytes)
    {
        const auto file = jpeg_writer::write(jpeg_writer::grey(4096, 256 * megabytes));
        return home.folder().write("large.jpg",
                                   {reinterpret_cast<const char*>(file.data()), file.size()});
    }

    // Every file in the runtime folders except the list of the domain's members.
    std::vector<std::string> left_behind() const
    {
        std::vector<std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(home.path("run"))) {
            if (!entry.is_directory() && entry.path().filename() != "registry") {
                found.push_back(entry.path());
            }
        }
        return found;
    }

    worker_home home;
    std::string socket = home.path("run/s.sock");
};

// --- obstacles ----------------------------------------------------------------------------------

TEST_F(EarlySocket, FileFolderOrLinkAtItsPathFailsTheStart)
{
    home.folder().write("run/s.sock", "text");
    expect_refused(socket, "is there and not a socket");
    EXPECT_EQ(home.folder().read("run/s.sock"), "text");
    unlink(socket.c_str());
    fs::create_directory(socket);
    expect_refused(socket, "is there and not a socket");
    rmdir(socket.c_str());
    fs::create_symlink("elsewhere", socket);
    expect_refused(socket, "is a symbolic link");
    EXPECT_TRUE(fs::is_symlink(socket));
    unlink(socket.c_str());
    EXPECT_THAT(left_behind(), IsEmpty());
}

TEST_F(EarlySocket, SocketWithAListenerFailsTheStart)
{
    for (const int type : {SOCK_SEQPACKET, SOCK_STREAM}) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        socket.copy(address.sun_path, sizeof address.sun_path - 1);
        const int live = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(live, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(listen(live, 4), 0);
        expect_refused(socket, "another process is listening on it");
        EXPECT_TRUE(fs::is_socket(socket));
        close(live);
        unlink(socket.c_str());
    }
}

TEST_F(EarlySocket, UnusableFolderFailsTheStart)
{
    expect_refused(home.path("none/s.sock"), "No such file or directory");
    expect_refused(home.folder().write("plain", "") + "/s.sock", "Not a directory");
    expect_refused("/proc/s.sock", "No such file or directory");
}

TEST_F(EarlySocket, FailureOfAnyCallThatCreatesItFailsTheStart)
{
    const std::pair<const char*, std::string> calls[] = {{"epoll_create1", "epoll"},
                                                         {"socket", socket},
                                                         {"bind", socket},
                                                         {"listen", socket},
                                                         {"epoll_ctl", socket}};
    for (const auto& [call, named] : calls) {
        EXPECT_EQ(run_in_child([&, name = call, path = named] {
                      if (!refuse_calls({name}, ENOSPC)) {
                          return 2;
                      }
                      expect_refused(socket, path, "No space left on device");
                      return HasFailure() ? 1 : 0;
                  }),
                  0)
            << call;
        EXPECT_THAT(left_behind(), IsEmpty()) << call;
    }
}

TEST_F(EarlySocket, WorkerServesOrRefusesAtAnyDescriptorLimit)
{
    constexpr int not_loaded = 127; // the loader has too few descriptors for the libraries
    bool was_refused = false;
    bool was_reached = false;
    for (unsigned descriptors = 4; descriptors <= 40; descriptors += was_reached ? 9 : 1) {
        worker::setting how = {{"--file", picture, "--sock", socket, "--no-autoshutdown"}};
        how.descriptors = descriptors;
        worker served(home, how);
        ASSERT_TRUE(eventually([&] {
            return !served.is_running() ||
                   served.printed().find("CNB buffer stats [final]") != std::string::npos;
        })) << descriptors;
        if (served.is_running()) {
            const held_client client = connect_to(socket);
            EXPECT_NE(take_frame(client), nullptr) << descriptors;
            EXPECT_EQ(stillimage_quit(client.get(), 30'000), STILLIMAGE_OK);
            EXPECT_EQ(served.wait_end(), 0);
            was_reached = true;
        } else {
            const int status = served.wait_end();
            EXPECT_TRUE(status == 1 || status == not_loaded) << status << ' ' << descriptors;
            was_refused = was_refused || status == 1;
        }
        EXPECT_THAT(left_behind(), IsEmpty()) << descriptors;
    }
    EXPECT_TRUE(was_refused);
    EXPECT_TRUE(was_reached);
}

// --- before the picture is examined -------------------------------------------------------------

TEST_F(EarlySocket, ExistsBeforeThePictureIsExaminedInEveryFormat)
{
    for (const char* name : {"jpeg/peacock-420.jpg", "png/basn2c08.png", "tiff/rgb-lzw.tiff",
                             "gif/still.gif", "webp/lossy-bricks.webp"}) {
        // STOPPING_START stops the worker before it examines the picture.
        worker::setting how = {
            {"--file", STILLIMAGE_TEST_DATA + std::string("/") + name, "--sock", socket,
             "--no-autoshutdown"},
            {"LD_PRELOAD=" STOPPING_START, "ASAN_OPTIONS=verify_asan_link_order=0"}};
        worker served(home, how);
        ASSERT_TRUE(served.wait_stopped()) << name;
        EXPECT_THAT(served.printed(), Not(HasSubstr("Media item setting"))) << name;
        started_client waiting(home, {socket, "wait", "--timeout", "20"});
        EXPECT_TRUE(fs::is_socket(socket)) << name;
        served.send(SIGCONT);
        EXPECT_EQ(waiting.wait_end(), 0) << name;
        EXPECT_EQ(run_client(home, {socket, "quit"}), 0);
        EXPECT_EQ(served.wait_end(), 0) << name;
    }
}

TEST_F(EarlySocket, IsNotCreatedByModesThatDoNotServe)
{
    for (const char* mode : {"--identify-only", "--create-meta"}) {
        worker::setting how = {
            {"--file", picture, "--sock", socket, mode},
            {"LD_PRELOAD=" STOPPING_START, "ASAN_OPTIONS=verify_asan_link_order=0"}};
        worker started(home, how);
        ASSERT_TRUE(started.wait_stopped()) << mode;
        EXPECT_THAT(left_behind(), IsEmpty()) << mode;
        started.send(SIGCONT);
        EXPECT_EQ(started.wait_end(), 0) << mode;
    }
}

// --- ends ---------------------------------------------------------------------------------------

TEST_F(EarlySocket, RefusedStartRemovesTheSocketOfADeadWorker)
{
    const std::string file = home.path("picture.jpg");
    fs::copy_file(picture, file);
    const worker::setting how = {{"--file", file, "--no-autoshutdown"}};
    worker served(home, how);
    ASSERT_EQ(run_client(home, {file, "wait", "--timeout", "20"}), 0);
    served.send(SIGKILL);
    served.wait_end();
    ASSERT_THAT(left_behind(), Not(IsEmpty()));
    home.folder().write("picture.jpg", "no picture of any kind any more");
    EXPECT_EQ(run_worker(home, how).status, 1);
    EXPECT_THAT(left_behind(), IsEmpty());
}

TEST_F(EarlySocket, WaitingDaemonIsNamedInTheLockAndLeavesNothing)
{
    const std::string large = large_picture(8);
    worker first(home, large, {"--domain-limit", "16M"});
    ASSERT_TRUE(first.wait_ready());
    worker parent(home, {{"--file", large, "--sock", socket, "--domain-limit", "16M", "--daemon"}});
    EXPECT_EQ(parent.wait_end(), 0);
    ASSERT_TRUE(parent.wait_printed("mipmap[0]: ")); // the last step before the wait
    const pid_t daemon = std::atoi(home.folder().read("run/s.sock.lock").c_str());
    EXPECT_NE(daemon, parent.pid());
    EXPECT_EQ(kill(daemon, 0), 0) << daemon;
    EXPECT_EQ(run_client(home, {socket, "quit"}), 0);
    EXPECT_TRUE(eventually([this] { return left_behind().empty(); }));
    EXPECT_THAT(parent.printed(), HasSubstr("Caller requested to exit\n"));
}

TEST_F(EarlySocket, DaemonThatEndsBeforeItServesLeavesNothing)
{
    worker parent(
        home, {{"--file", large_picture(8), "--sock", socket, "--domain-limit", "4M", "--daemon"}});
    EXPECT_EQ(parent.wait_end(), 0);
    EXPECT_TRUE(parent.wait_printed("CNB allocation failed\n"));
    EXPECT_TRUE(eventually([this] { return left_behind().empty(); }));
}

TEST_F(EarlySocket, RequestToExitEndsTheWaitForTheBuffer)
{
    const std::string large = large_picture(8);
    worker first(home, large, {"--domain-limit", "16M"});
    ASSERT_TRUE(first.wait_ready());
    worker second(home, large, {"--domain-limit", "16M"});
    EXPECT_EQ(run_client(home, {second.socket(), "quit"}), 0);
    EXPECT_EQ(second.wait_end(), 0);
    EXPECT_THAT(second.printed(), Not(HasSubstr("Using CNB buffer")));
    EXPECT_THAT(second.printed(), HasSubstr("Caller requested to exit\n"));
    EXPECT_THAT(second.printed(), HasSubstr("Cleaning up\n"));
}

// --- surroundings -------------------------------------------------------------------------------

TEST_F(EarlySocket, MissingRuntimeFolderIsCreatedInEveryMode)
{
    int count = 0;
    for (const std::vector<std::string>& mode : {std::vector<std::string>{"--identify-only"},
                                                 {"--create-meta"},
                                                 {"--temp-clean-only"},
                                                 {"--sock", home.path("given.sock"), "--oneshot"},
                                                 {"--oneshot"}}) {
        const std::string runtime = home.path("missing" + std::to_string(++count)) + "/below";
        worker::setting how = {{"--file", picture}, {"XDG_RUNTIME_DIR=" + runtime}};
        how.arguments.insert(how.arguments.end(), mode.begin(), mode.end());
        const ended_worker ended = run_worker(home, how);
        EXPECT_EQ(ended.status, 0) << mode[0] << "\n" << ended.printed;
        EXPECT_TRUE(fs::is_directory(runtime + "/stillimage")) << mode[0];
    }
}

} // namespace
