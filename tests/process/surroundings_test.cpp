// A worker with misbehaving hosts, terminals and clients, and with tight limits: it continues to
// serve, and leaves nothing behind.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/worker.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/peacock-420.jpg";
const std::string photograph = STILLIMAGE_TEST_DATA "/jpeg/landscape-420.jpg"; // 75 row groups

class Surroundings : public testing::Test {
protected:
    // Every file in the runtime folders except the list of the domain's members, which is never
    // removed.
    std::vector<std::string> left_behind() const
    {
        std::vector<std::string> found;
        for (const char* name : {"run", "tmp"}) {
            for (const auto& entry :
                 std::filesystem::recursive_directory_iterator(home.path(name))) {
                if (!entry.is_directory() && entry.path().filename() != "registry") {
                    found.push_back(entry.path());
                }
            }
        }
        return found;
    }

    worker_home home;
};

// --- ends of a run ------------------------------------------------------------------------------

TEST_F(Surroundings, EveryEndLeavesAnEmptyRuntimeFolder)
{
    const std::string unknown = home.folder().write("unknown", "no picture of any known kind");
    const std::string short_file = home.folder().write("short", "15 bytes of it.");
    const std::string plain = home.folder().write("plain", "text");
    const struct {
        int status;
        std::vector<std::string> arguments;
    } runs[] = {{1, {"--help"}},
                {1, {}},
                {1, {"--file"}},
                {1, {"--file", home.path("missing")}},
                {1, {"--file", picture, "--metadir", plain + "/below"}},
                {1, {"--file", picture, "--sock", plain + "/below"}},
                {0, {"--file", picture, "--temp-clean-only"}},
                {0, {"--file", picture, "--identify-only"}},
                {0, {"--file", picture, "--create-meta"}},
                {1, {"--file", unknown}},
                {1, {"--file", short_file}},
                {1, {"--file", picture, "--file-type", "png"}},
                {1, {"--file", picture, "--domain-limit", "4K"}},
                {0, {"--file", picture, "--oneshot"}},
                {0, {"--file", picture, "--auto-shutdown", "0"}}};
    for (const auto& run : runs) {
        const ended_worker ended = run_worker(home, {run.arguments});
        EXPECT_EQ(ended.status, run.status) << ended.printed;
        EXPECT_THAT(left_behind(), IsEmpty()) << ended.printed;
    }
}

TEST_F(Surroundings, KilledFortyTimesAtAnyMomentTheNextStartWorks)
{
    const worker::setting how = {{"--file", photograph}};
    for (int round = 0; round < 40; ++round) {
        worker served(home, how);
        pause_ms(round * 7919 % 40);
        served.send(round % 3 == 0 ? SIGABRT : SIGKILL);
        served.wait_end();
        ASSERT_TRUE(round % 10 != 9 ||
                    run_worker(home, {{"--file", photograph, "--oneshot"}}).status == 0);
    }
    EXPECT_THAT(left_behind(), IsEmpty());
}

// --- signals and limits -------------------------------------------------------------------------

TEST_F(Surroundings, TimerSignalEveryMillisecondChangesNothing)
{
    const std::vector<std::string> timer = {"LD_PRELOAD=" INTERRUPTING_TIMER,
                                            "ASAN_OPTIONS=verify_asan_link_order=0"};
    worker::setting how = {{"--file", photograph, "--sock", home.path("s"), "--no-autoshutdown"},
                           timer};
    worker served(home, how);
    stillimage_client* client = nullptr;
    ASSERT_EQ(stillimage_connect(home.path("s").c_str(), 30'000, &client), STILLIMAGE_OK);
    ASSERT_EQ(stillimage_wait_ready(client, 0, 30'000), STILLIMAGE_OK) << served.printed();
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(stillimage_ping(client, 30'000), STILLIMAGE_OK);
        pause_ms(1);
    }
    EXPECT_EQ(run_client(home, {home.path("s"), "set", "colour", "green"}), 0);
    EXPECT_EQ(stillimage_quit(client, 30'000), STILLIMAGE_OK);
    stillimage_close(client);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_THAT(served.printed(), testing::Not(HasSubstr("Interrupted")));
    EXPECT_THAT(left_behind(), IsEmpty());
}

TEST_F(Surroundings, IdleWorkerTakesLessThanOnePercentOfAProcessor)
{
    const worker served(home, picture);
    ASSERT_TRUE(served.wait_ready());
    pause_ms(100);
    constexpr int watched_ms = 2000;
    const uint64_t before = served.processor_time_us();
    pause_ms(watched_ms);
    EXPECT_LT(served.processor_time_us() - before, uint64_t{watched_ms} * 1000 / 100);
}

TEST_F(Surroundings, PathsAreAcceptedUpToTheLimit)
{
    const auto path_of = [this](size_t length) {
        std::string path = home.path("s");
        path.resize(length, 's');
        return path;
    };
    for (const size_t length : {size_t{108}, size_t{109}, size_t{4095}, size_t{4096}}) {
        const ended_worker ended =
            run_worker(home, {{"--file", picture, "--sock", path_of(length)}});
        EXPECT_EQ(ended.status, 1) << length;
        EXPECT_THAT(ended.printed, EndsWith("Failed to obtain derived params\n")) << length;
        EXPECT_THAT(left_behind(), IsEmpty());
        const std::string deep = home.path(std::string(length, 'x') + "/y");
        EXPECT_EQ(run_worker(home, {{"--file", deep, "--identify-only"}}).status, 1) << length;
        const ended_worker folder =
            run_worker(home, {{"--file", picture, "--metadir", deep, "--identify-only"}});
        EXPECT_EQ(folder.status, length < 256 ? 0 : 1) << length << folder.printed;
    }
    worker served(home, {{"--file", picture, "--sock", path_of(107), "--no-autoshutdown"}});
    EXPECT_EQ(run_client(home, {path_of(107), "wait", "--timeout", "20"}), 0);
    EXPECT_EQ(run_client(home, {path_of(107), "quit"}), 0);
    EXPECT_EQ(served.wait_end(), 0);
}

// --- the host -----------------------------------------------------------------------------------

TEST_F(Surroundings, HostThatNeverReadsDoesNotBlockDecodingAndGetsReadinessLater)
{
    int channel[2];
    ASSERT_EQ(pipe2(channel, O_CLOEXEC), 0);
    ASSERT_EQ(fcntl(channel[1], F_SETPIPE_SZ, 4096), 4096);
    const std::string junk(4096, '\n');
    ASSERT_EQ(write(channel[1], junk.data(), junk.size()), 4096); // full from the start
    ASSERT_EQ(fcntl(channel[1], F_SETFD, 0), 0);
    worker::setting how = {{"--file", photograph, "--sock", home.path("s"), "--no-autoshutdown",
                            "--status-fd", std::to_string(channel[1])}};
    worker served(home, how);
    close(channel[1]);
    EXPECT_EQ(run_client(home, {home.path("s"), "wait", "--timeout", "20"}), 0);
    std::string heard;
    char piece[4096];
    EXPECT_EQ(read(channel[0], piece, sizeof piece), 4096); // the junk
    EXPECT_TRUE(eventually([&] {
        const ssize_t got = read(channel[0], piece, sizeof piece);
        heard.append(piece, static_cast<size_t>(std::max<ssize_t>(got, 0)));
        return got <= 0 || heard.find(R"({"ready": 1)") != std::string::npos;
    }));
    EXPECT_THAT(heard, EndsWith("{\"ready\": 1, \"text\": \"Ready to serve data\"}\n"));
    EXPECT_EQ(fcntl(channel[0], F_GETFL) & O_NONBLOCK, 0);
    close(channel[0]);
    served.send(SIGTERM);
    EXPECT_EQ(served.wait_end(), 0);
}

// A limit on the size of files simulates a full disk.
TEST_F(Surroundings, StatusFileThatIsFullForAWhileGetsReadinessLater)
{
    constexpr rlim_t limit = rlim_t{1} << 20; // the frame buffer is smaller
    const std::string path = home.folder().write("channel", std::string(limit, '\n'));
    const int channel = open(path.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(channel, 0);
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small = {limit, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    worker served(home, picture, {"--status-fd", std::to_string(channel)});
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    close(channel);
    ASSERT_TRUE(served.wait_ready()) << served.printed();
    EXPECT_EQ(std::filesystem::file_size(path), limit);
    ASSERT_EQ(prlimit(served.pid(), RLIMIT_FSIZE, &before, nullptr), 0);
    EXPECT_TRUE(eventually([&] { return std::filesystem::file_size(path) > limit; }));
    EXPECT_EQ(run_client(home, {served.socket(), "quit"}), 0);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_THAT(home.folder().read("channel"),
                EndsWith("{\"ready\": 1, \"text\": \"Ready to serve data\"}\n"));
}

TEST_F(Surroundings, BrokenPipeOfItsMessagesChangesNothing)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    worker::setting how = {{"--file", picture, "--sock", home.path("s"), "--no-autoshutdown"}};
    how.standard_fd = ends[1];
    worker served(home, how);
    close(ends[1]);
    EXPECT_EQ(run_client(home, {home.path("s"), "wait", "--timeout", "20"}), 0);
    EXPECT_EQ(run_client(home, {home.path("s"), "quit"}), 0);
    EXPECT_EQ(served.wait_end(), 0);
}

// --- clients ------------------------------------------------------------------------------------

TEST_F(Surroundings, ClientsConnectQueryAndSetThroughoutADecode)
{
    worker served(home, photograph, {"--slow-decode"});
    int visits = 0;
    for (bool ready = false; !ready; ++visits) {
        stillimage_client* client = nullptr;
        ASSERT_EQ(stillimage_connect(served.socket().c_str(), 30'000, &client), STILLIMAGE_OK);
        stillimage_frame* frame = nullptr;
        const auto result = stillimage_get_frame(client, 0, 50, 50, 0, &frame);
        ready = result == STILLIMAGE_OK;
        ASSERT_TRUE(ready || result == STILLIMAGE_ERROR_NOT_READY) << result;
        stillimage_frame_release(frame);
        char* text = nullptr;
        EXPECT_EQ(stillimage_get_status(client, 30'000, &text), STILLIMAGE_OK);
        stillimage_free(text);
        EXPECT_EQ(stillimage_set_metadata(client, "aspect ratio", visits % 2 == 0 ? "4:3" : "16:9",
                                          30'000),
                  STILLIMAGE_OK);
        stillimage_close(client); // no request is outstanding
    }
    EXPECT_GT(visits, 5);
    EXPECT_EQ(run_client(home, {served.socket(), "quit"}), 0);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_THAT(served.printed(), HasSubstr("Generating mipmap"));
}

TEST_F(Surroundings, FloodOfMetadataStoresTheLastValue)
{
    worker served(home, picture, {"--metadir", home.path("meta")});
    ASSERT_TRUE(served.wait_ready());
    stillimage_client* client = nullptr;
    ASSERT_EQ(stillimage_connect(served.socket().c_str(), 30'000, &client), STILLIMAGE_OK);
    for (int i = 1; i <= 3000; ++i) {
        const std::string value = std::to_string(i) + ":9";
        ASSERT_EQ(stillimage_set_metadata(client, "aspect ratio", value.c_str(), 30'000),
                  STILLIMAGE_OK);
    }
    char* text = nullptr;
    ASSERT_EQ(stillimage_get_status(client, 30'000, &text), STILLIMAGE_OK);
    EXPECT_THAT(text, HasSubstr("\"aspect ratio\": [3000, 9]"));
    stillimage_free(text);
    EXPECT_EQ(stillimage_quit(client, 30'000), STILLIMAGE_OK);
    stillimage_close(client);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_THAT(home.folder().read("meta/metadata"), HasSubstr("aspect ratio = 3000:9\n"));
}

} // namespace
