// Connections by picture path, with the real worker and with programs that are not workers.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/environment.h"
#include "tests/support/fake_worker.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"
#include "tests/unit/client/open_picture_fixture.h"
#include "tests/unit/client/opened.h"
#include "wire/socket_address.h"

using testing::EndsWith;
using testing::HasSubstr;

namespace {

std::string field_of_process(pid_t pid, const char* name)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(name)) {
            return line.substr(strlen(name) + 2);
        }
    }
    return {};
}

std::string target_of(pid_t pid, int fd)
{
    char target[256] = {};
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
    return readlink(link.c_str(), target, sizeof target - 1) > 0 ? target : "";
}

bool has_open(pid_t pid, const std::string& path)
{
    for (int fd = 0; fd < 64; ++fd) {
        if (target_of(pid, fd) == path) {
            return true;
        }
    }
    return false;
}

// --- socket --------------------------------------------------------------------------------------

TEST_F(OpenPicture, SocketIsWhereTheWorkerServes)
{
    const worker served(home, worker::setting{{"--file", picture, "--no-autoshutdown"}});
    char path[108];
    ASSERT_EQ(stillimage_socket_of(picture.c_str(), path, sizeof path), STILLIMAGE_OK);
    EXPECT_TRUE(served.wait_printed("   Sock: " + std::string(path) + "\n"));
    const opened connection(path);
    EXPECT_EQ(connection.result, STILLIMAGE_OK) << connection.error();
}

TEST_F(OpenPicture, SocketPathNeedsSpaceAndAPicture)
{
    char path[108] = "untouched";
    ASSERT_EQ(stillimage_socket_of(picture.c_str(), path, sizeof path), STILLIMAGE_OK);
    const size_t length = strlen(path);
    std::vector<char> exact(length + 1);
    EXPECT_EQ(stillimage_socket_of(picture.c_str(), exact.data(), length + 1), STILLIMAGE_OK);
    EXPECT_STREQ(exact.data(), path);
    EXPECT_EQ(stillimage_socket_of(picture.c_str(), exact.data(), length),
              STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_socket_of(nullptr, path, sizeof path), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_socket_of(picture.c_str(), nullptr, 108), STILLIMAGE_ERROR_ARGUMENT);
    errno = 0;
    EXPECT_EQ(stillimage_socket_of("/missing/picture", path, sizeof path), STILLIMAGE_ERROR_SYSTEM);
    EXPECT_EQ(errno, ENOENT);
}

// --- connecting ----------------------------------------------------------------------------------

TEST_F(OpenPicture, NoWorkerIsStartedWithoutTheFlag)
{
    EXPECT_EQ(connect(picture, 0, 100), STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_THAT(error(), HasSubstr("there is no such socket"));
    EXPECT_TRUE(home.sockets().empty());
}

TEST_F(OpenPicture, BusyWorkerIsWaitedForAndNoOtherIsStarted)
{
    worker served(home, worker::setting{{"--file", picture, "--no-autoshutdown"}});
    ASSERT_EQ(connect(picture, 0), STILLIMAGE_OK) << error();
    client.reset();
    environment.set("STILLIMAGE_PROGRAM", program("touch " + home.path("started")));
    served.send(SIGSTOP);
    for (const unsigned flags : {0U, unsigned{STILLIMAGE_START_WORKER}}) {
        EXPECT_EQ(connect(picture, flags, silence_ms), STILLIMAGE_ERROR_TIMEOUT);
        EXPECT_EQ(error(), "the worker did not answer in time");
    }
    std::thread waker([&served] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2 * silence_ms));
        served.send(SIGCONT);
    });
    EXPECT_EQ(connect(picture, STILLIMAGE_START_WORKER, -1), STILLIMAGE_OK) << error();
    waker.join();
    EXPECT_FALSE(home.folder().has("started"));
    started.clear(); // the worker is a child of the test
}

TEST_F(OpenPicture, BadArgumentsAreRefused)
{
    stillimage_client* made = nullptr;
    EXPECT_EQ(stillimage_connect_picture(nullptr, 0, 0, &made), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_connect_picture("x", 0, 0, nullptr), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(connect(picture, 2), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(error(), "a picture and known flags are needed");
    EXPECT_EQ(connect("", 0), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_reconnect(nullptr, 0), STILLIMAGE_ERROR_ARGUMENT);
}

TEST_F(OpenPicture, StartedWorkerServesThePictureAndIsNoChildOfTheCaller)
{
    const std::string other = home.folder().write("other", "");
    const int kept = open(other.c_str(), O_RDONLY); // lacks close-on-exec
    const size_t descriptors = open_descriptors();
    ASSERT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_OK) << error();
    EXPECT_EQ(open_descriptors(), descriptors + 1);
    const held_frame frame = take_frame(client);
    ASSERT_NE(frame, nullptr);
    EXPECT_GT(stillimage_frame_picture(frame.get())->width, 0U);

    const pid_t pid = stillimage_worker_pid(client.get());
    EXPECT_NE(field_of_process(pid, "PPid"), std::to_string(getpid()));
    EXPECT_EQ(getsid(pid), pid);
    EXPECT_EQ(target_of(pid, STDIN_FILENO), "/dev/null");
    EXPECT_EQ(target_of(pid, STDOUT_FILENO), "/dev/null");
    EXPECT_FALSE(has_open(pid, other));
    EXPECT_TRUE(has_open(getpid(), other));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), -1);
    EXPECT_EQ(errno, ECHILD);
    close(kept);
}

volatile sig_atomic_t child_signals = 0;

TEST_F(OpenPicture, CallerGetsNoSigchldAndTheWorkerInheritsNoSignalState)
{
    struct sigaction before = {};
    struct sigaction counting = {};
    counting.sa_handler = [](int) { child_signals = child_signals + 1; };
    sigaction(SIGCHLD, &counting, &before);
    struct sigaction hangup_before = {};
    struct sigaction ignoring = {};
    ignoring.sa_handler = SIG_IGN;
    sigaction(SIGHUP, &ignoring, &hangup_before);
    sigset_t blocked;
    sigset_t mask_before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &mask_before);
    EXPECT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_OK) << error();
    pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
    sigaction(SIGHUP, &hangup_before, nullptr);
    sigaction(SIGCHLD, &before, nullptr);
    EXPECT_EQ(child_signals, 0);
    const pid_t pid = stillimage_worker_pid(client.get());
    EXPECT_EQ(std::stoull(field_of_process(pid, "SigBlk"), nullptr, 16), 0U);
    EXPECT_EQ(std::stoull(field_of_process(pid, "SigIgn"), nullptr, 16) & 1U, 0U);
}

TEST_F(OpenPicture, SecondConnectionReachesTheSameWorker)
{
    ASSERT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_OK) << error();
    const pid_t first = stillimage_worker_pid(client.get());
    const held_client kept = std::move(client);
    ASSERT_EQ(connect(picture, 0), STILLIMAGE_OK) << error();
    EXPECT_EQ(stillimage_worker_pid(client.get()), first);
}

TEST_F(OpenPicture, SimultaneousConnectionsShareOneWorker)
{
    constexpr size_t many = 6;
    std::vector<held_client> clients(many);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < many; ++i) {
        threads.emplace_back([&, i] {
            stillimage_client* made = nullptr;
            EXPECT_EQ(stillimage_connect_picture(picture.c_str(), STILLIMAGE_START_WORKER,
                                                 start_limit_ms, &made),
                      STILLIMAGE_OK)
                << stillimage_last_error(made);
            clients[i].reset(made);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const held_client& one : clients) {
        EXPECT_EQ(stillimage_worker_pid(one.get()), stillimage_worker_pid(clients[0].get()));
    }
    started.push_back(stillimage_worker_pid(clients[0].get()));
}

// --- failures ------------------------------------------------------------------------------------

TEST_F(OpenPicture, FileThatIsNoPictureIsRefusedWithTheWorkersMessage)
{
    const size_t descriptors = open_descriptors();
    const std::string text = home.folder().write("text.png", "no picture");
    EXPECT_EQ(connect(text, STILLIMAGE_START_WORKER), STILLIMAGE_ERROR_REFUSED);
    EXPECT_EQ(error(), "the worker does not serve " + text + ": it is no picture of a known type");
    const std::string other =
        home.folder().write("passwd", std::string("root:x:0:0::/root:/bin/sh\n"));
    EXPECT_EQ(connect(other, STILLIMAGE_START_WORKER), STILLIMAGE_ERROR_REFUSED);
    EXPECT_EQ(error(), "the worker does not serve " + other + ": it is no picture of a known type");
    const std::string tiled = STILLIMAGE_TEST_DATA "/tiff/tiled.tiff";
    EXPECT_EQ(connect(tiled, STILLIMAGE_START_WORKER), STILLIMAGE_ERROR_REFUSED);
    EXPECT_EQ(error(), "the worker does not serve " + tiled +
                           ": TIFF strip height not available; TIFF examination failed");
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(OpenPicture, MissingPictureAndMissingProgramAreReported)
{
    EXPECT_EQ(connect("/missing/picture", STILLIMAGE_START_WORKER), STILLIMAGE_ERROR_SYSTEM);
    EXPECT_EQ(error(), "cannot reach the picture /missing/picture: No such file or directory");
    environment.set("STILLIMAGE_PROGRAM", "/missing/program");
    EXPECT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_EQ(error(), "cannot start '/missing/program': No such file or directory");
}

TEST_F(OpenPicture, ProgramIsFoundThroughPathByDefault)
{
    environment.set("STILLIMAGE_PROGRAM", std::nullopt);
    environment.set("PATH", "/nowhere");
    EXPECT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_EQ(error(), "cannot start 'stillimage': No such file or directory");
    const std::string program = STILLIMAGE_PROGRAM;
    environment.set("PATH", program.substr(0, program.find_last_of('/')));
    EXPECT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_OK) << error();
}

TEST_F(OpenPicture, ProgramThatNeverServesCausesATimeout)
{
    environment.set("STILLIMAGE_PROGRAM", program("echo one >&2; sleep 5\n"));
    EXPECT_EQ(connect(picture, STILLIMAGE_START_WORKER, 200), STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(error(), "the worker that was started for " + picture + " did not serve in time");
}

TEST_F(OpenPicture, ErrorQuotesTheLastTwoLinesOfTheWorker)
{
    environment.set("STILLIMAGE_PROGRAM", program("printf 'one\\ntwo\\nthree\\n' >&2; exit 1\n"));
    EXPECT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_ERROR_REFUSED);
    EXPECT_THAT(error(), EndsWith(": two; three"));
    environment.set("STILLIMAGE_PROGRAM", program("exit 1\n"));
    EXPECT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_ERROR_REFUSED);
    EXPECT_THAT(error(), EndsWith(": it said nothing"));
}

// A killed worker leaves its socket; one that refuses its file removes the socket before it ends.
TEST_F(OpenPicture, WorkerKilledDuringStartIsNotReportedAsRefusal)
{
    char path[108];
    ASSERT_EQ(stillimage_socket_of(picture.c_str(), path, sizeof path), STILLIMAGE_OK);
    ASSERT_EQ(mkdir(home.path("run/stillimage").c_str(), 0700), 0);
    const sockaddr_un address = wire::socket_address(path);
    const int left = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(left, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(left);
    environment.set("STILLIMAGE_PROGRAM", program("echo one >&2; kill -KILL $$\n"));
    EXPECT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_EQ(error(), "the worker of " + picture + " has gone before it could serve: one");
    environment.set("STILLIMAGE_PROGRAM", STILLIMAGE_PROGRAM);
    EXPECT_EQ(stillimage_reconnect(client.get(), start_limit_ms), STILLIMAGE_OK) << error();
    note_worker();
}

// --- reconnection --------------------------------------------------------------------------------

TEST_F(OpenPicture, ReconnectionStartsANewWorkerAndHeldFramesStayValid)
{
    ASSERT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_OK) << error();
    const pid_t first = stillimage_worker_pid(client.get());
    held_frame old = take_frame(client);
    ASSERT_NE(old, nullptr);
    const stillimage_picture was = *stillimage_frame_picture(old.get());
    end_worker();
    ASSERT_EQ(stillimage_reconnect(client.get(), start_limit_ms), STILLIMAGE_OK) << error();
    note_worker();
    EXPECT_NE(stillimage_worker_pid(client.get()), first);
    const held_frame anew = take_frame(client);
    ASSERT_NE(anew, nullptr);
    const stillimage_picture& is = *stillimage_frame_picture(anew.get());
    EXPECT_NE(is.plane[STILLIMAGE_Y], was.plane[STILLIMAGE_Y]);
    ASSERT_EQ(is.width, was.width);
    for (uint32_t y = 0; y < was.height; ++y) {
        ASSERT_EQ(memcmp(is.plane[0] + size_t{y} * is.stride[0],
                         was.plane[0] + size_t{y} * was.stride[0], was.width),
                  0);
    }
    old.reset(); // affects neither connection
    EXPECT_EQ(stillimage_ping(client.get(), patience_ms), STILLIMAGE_OK) << error();
}

TEST_F(OpenPicture, ReconnectionRenewsTheSubscription)
{
    std::vector<stillimage_event> events;
    const auto note = [](void* user, const stillimage_event* event) {
        static_cast<std::vector<stillimage_event>*>(user)->push_back(*event);
    };
    ASSERT_EQ(connect(picture, STILLIMAGE_START_WORKER), STILLIMAGE_OK) << error();
    ASSERT_EQ(stillimage_wait_ready(client.get(), 0, start_limit_ms), STILLIMAGE_OK);
    ASSERT_EQ(
        stillimage_subscribe(client.get(), STILLIMAGE_CHANGE_METADATA, note, &events, patience_ms),
        STILLIMAGE_OK);
    end_worker();
    EXPECT_EQ(stillimage_ping(client.get(), patience_ms), STILLIMAGE_ERROR_NO_WORKER);
    environment.set("STILLIMAGE_PROGRAM", "/missing/program");
    EXPECT_EQ(stillimage_reconnect(client.get(), patience_ms), STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_EQ(stillimage_descriptor(client.get()), -1);
    environment.set("STILLIMAGE_PROGRAM", STILLIMAGE_PROGRAM);
    events.clear();
    ASSERT_EQ(stillimage_reconnect(client.get(), start_limit_ms), STILLIMAGE_OK) << error();
    note_worker();
    ASSERT_EQ(stillimage_wait_ready(client.get(), 0, start_limit_ms), STILLIMAGE_OK);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front().changes, 0U);
    events.clear();
    ASSERT_EQ(stillimage_set_metadata(client.get(), "aspect ratio", "16:9", patience_ms),
              STILLIMAGE_OK);
    while (events.empty()) {
        ASSERT_EQ(stillimage_dispatch(client.get(), patience_ms), STILLIMAGE_OK) << error();
    }
    EXPECT_NE(events.front().changes & STILLIMAGE_CHANGE_METADATA, 0U);
}

TEST_F(OpenPicture, ReconnectionToASocketUsesTheSamePath)
{
    std::atomic<int> greeted = 0;
    const fake_worker fake([&](fake_peer& peer) {
        ++greeted;
        peer.greet();
        peer.await_end();
    });
    const opened connection(fake.path());
    ASSERT_EQ(connection.result, STILLIMAGE_OK) << connection.error();
    EXPECT_EQ(stillimage_reconnect(connection.client, patience_ms), STILLIMAGE_OK);
    EXPECT_EQ(stillimage_worker_pid(connection.client), 4321);
    EXPECT_EQ(greeted, 2);
}

} // namespace
