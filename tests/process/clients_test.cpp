// Well-behaved and misbehaving clients of the real worker: a bad client affects no other, and the
// worker releases what it held.
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/child_process.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using testing::HasSubstr;
using testing::Not;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/harvesters-420.jpg"; // 1165 x 859

class Clients : public testing::Test {
protected:
    void SetUp() override
    {
        served = std::make_unique<worker>(home, picture, worker::may_be_inspected);
        ASSERT_TRUE(served->wait_ready());
        // Count descriptors only after the worker has closed the connection of wait_ready(): each
        // connection takes one.
        const held_client only = connect();
        ASSERT_TRUE(eventually([&] { return status_of(only).find("\"clients\": 1,") != npos; }));
        descriptors = served->open_descriptors() - 1;
    }

    static constexpr size_t npos = std::string::npos;

    static std::string status_of(const held_client& client)
    {
        char* json = nullptr;
        EXPECT_EQ(stillimage_get_status(client.get(), 30'000, &json), STILLIMAGE_OK);
        std::string text = json != nullptr ? json : "";
        stillimage_free(json);
        return text;
    }

    held_client connect() const { return connect_to(served->socket()); }

    static stillimage_frame* take(const held_client& client, int width = 0, int height = 0)
    {
        stillimage_frame* frame = nullptr;
        EXPECT_EQ(stillimage_get_frame(client.get(), 0, width, height, 20'000, &frame),
                  STILLIMAGE_OK)
            << stillimage_last_error(client.get());
        return frame;
    }

    // A connected socket without the client library. The caller closes it.
    int connect_bare() const
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof address.sun_path, "%s", served->socket().c_str());
        for (int tries = 0; tries < 2000; ++tries) {
            const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            if (fd < 0 ||
                ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
                return fd;
            }
            close(fd);
            pause_ms(2); // the listen queue is full
        }
        return -1;
    }

    void expect_everything_given_back() const
    {
        EXPECT_TRUE(eventually([&] { return served->open_descriptors() == descriptors; }))
            << served->open_descriptors() << " instead of " << descriptors;
    }

    void expect_still_serving() const
    {
        const held_client client = connect();
        stillimage_frame_release(take(client));
    }

    worker_home home;
    std::unique_ptr<worker> served;
    size_t descriptors = 0;
};

TEST_F(Clients, LevelFitsTheWantedSize)
{
    const held_client client = connect();
    const struct {
        int width, height;
        uint32_t level_width;
    } cases[] = {{0, 0, 1165},
                 {1165, 859, 1165},
                 {874, 645, 1165}, // 75 %
                 {862, 636, 583},
                 {583, 430, 583},
                 {437, 322, 292}, // just below 75 % of level 0
                 {37, 27, 37},
                 {1, 1, 37},
                 {5000, 5000, 1165},
                 {-1, 5, 1165},
                 {INT32_MIN, INT32_MIN, 1165},
                 {0, 9, 1165}};
    for (const auto& wanted : cases) {
        stillimage_frame* frame = take(client, wanted.width, wanted.height);
        EXPECT_EQ(stillimage_frame_picture(frame)->width, wanted.level_width)
            << wanted.width << "x" << wanted.height;
        EXPECT_EQ(stillimage_frame_picture(frame)->full_width, 1165U);
        stillimage_frame_release(frame);
    }
}

TEST_F(Clients, TimePositionsBeyondTheEndShowTheLastFrame)
{
    const held_client client = connect();
    stillimage_frame* frame = nullptr;
    ASSERT_EQ(stillimage_get_frame(client.get(), UINT64_MAX, 0, 0, 30'000, &frame), STILLIMAGE_OK);
    EXPECT_EQ(stillimage_frame_picture(frame)->frame_number, 1U);
    stillimage_frame_release(frame);
}

TEST_F(Clients, FrameStaysReadableAfterTheWorkerIsKilled)
{
    const held_client client = connect();
    stillimage_frame* frame = take(client);
    const stillimage_picture* seen = stillimage_frame_picture(frame);
    const size_t size = size_t{seen->stride[0]} * seen->plane_height[0];
    const std::string before(reinterpret_cast<const char*>(seen->plane[0]), size);
    served->send(SIGKILL);
    served->wait_end();
    EXPECT_EQ(memcmp(seen->plane[0], before.data(), size), 0);
    EXPECT_EQ(stillimage_ping(client.get(), 1000), STILLIMAGE_ERROR_NO_WORKER);
    stillimage_frame_release(frame);
}

TEST_F(Clients, FramesOfAKilledClientAreReleased)
{
    child_process other([this] {
        const held_client client = connect();
        for (int i = 0; i < 100; ++i) {
            take(client);
        }
        pause_ms(60'000);
        return 0;
    });
    ASSERT_TRUE(eventually([&] { return served->open_descriptors() > descriptors; }));
    pause_ms(50);
    other.kill_now();
    other.wait();
    expect_everything_given_back();
    EXPECT_THAT(served->printed(), Not(HasSubstr("WARNING: deleting video reference")));
    expect_still_serving();
}

TEST_F(Clients, AThousandConnectionsAtOnceAreServed)
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    constexpr size_t wanted = 1000;
    if (limit.rlim_cur < wanted + 100) {
        GTEST_SKIP() << "too few descriptors";
    }
    std::vector<held_client> clients;
    while (clients.size() < wanted) {
        clients.push_back(connect());
    }
    for (const held_client& client : clients) {
        stillimage_frame_release(take(client, 100, 100));
    }
    clients.clear();
    expect_everything_given_back();
    expect_still_serving();
}

TEST_F(Clients, GarbageEndsThatConnectionOnly)
{
    const held_client other = connect();
    const std::string pieces[] = {"x", std::string(24, '\0'), std::string(65536, 'A'),
                                  std::string(200'000, 'B'),
                                  std::string("STIL\1\0\0\0\1\0\0\0\xFF\xFF\xFF\xFF", 16)};
    for (const std::string& piece : pieces) {
        const int fd = connect_bare();
        ASSERT_GE(fd, 0);
        send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
        EXPECT_TRUE(eventually([&] {
            char answer[4096];
            return recv(fd, answer, sizeof answer, MSG_DONTWAIT) == 0;
        })) << piece.size();
        close(fd);
    }
    EXPECT_EQ(stillimage_ping(other.get(), 30'000), STILLIMAGE_OK);
}

TEST_F(Clients, ClientThatNeverReadsIsDropped)
{
    const held_client other = connect();
    const int fd = connect_bare();
    ASSERT_GE(fd, 0);
    // HELLO, then endless pings. A header has 24 bytes, a body 4 or 8.
    std::string hello("STIL\1\0\0\0\1\0\0\0\x1C\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0", 28);
    std::string ping("STIL\1\0\0\0\x09\0\0\0\x20\0\0\0\2\0\0\0\0\0\0\0\7\0\0\0\0\0\0\0", 32);
    ASSERT_EQ(send(fd, hello.data(), hello.size(), MSG_NOSIGNAL), 28);
    const bool dropped = eventually([&] {
        for (int i = 0; i < 100; ++i) {
            if (send(fd, ping.data(), ping.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
                errno != EAGAIN) {
                return true;
            }
        }
        EXPECT_EQ(stillimage_ping(other.get(), 30'000), STILLIMAGE_OK);
        return false;
    });
    EXPECT_TRUE(dropped);
    close(fd);
    expect_still_serving();
}

TEST_F(Clients, FloodOfConnectionsLeaksNothing)
{
    const size_t memory = served->resident_kilobytes();
    for (int i = 0; i < 3000; ++i) {
        const int fd = connect_bare();
        ASSERT_GE(fd, 0);
        close(fd);
    }
    expect_everything_given_back();
    EXPECT_LT(served->resident_kilobytes(), memory + 4096);
    expect_still_serving();
}

TEST_F(Clients, AnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs the rights to become another user";
    }
    EXPECT_EQ(run_without_privileges([this] {
                  stillimage_client* client = nullptr;
                  const auto result = stillimage_connect(served->socket().c_str(), 500, &client);
                  stillimage_close(client);
                  return result == STILLIMAGE_OK ? 1 : 0;
              }),
              0);
}

TEST_F(Clients, MetadataSetByAClientTakesEffectAndSurvivesARestart)
{
    const std::string metadir = home.path("meta");
    worker again(home, picture, {"--metadir", metadir});
    ASSERT_TRUE(again.wait_ready());
    EXPECT_EQ(run_client(home, {again.socket(), "set", "aspect ratio", "16:9"}), 0);
    EXPECT_EQ(run_client(home, {again.socket(), "set", "background music", "on"}), 0);
    std::string frame;
    EXPECT_EQ(run_client(home, {again.socket(), "frame"}, &frame), 0);
    EXPECT_THAT(frame, HasSubstr("\"aspect\": [16, 9], \"buffer\""));
    EXPECT_EQ(run_client(home, {again.socket(), "quit"}), 0);
    EXPECT_EQ(again.wait_end(), 0);

    const worker restarted(home, picture, {"--metadir", metadir});
    ASSERT_TRUE(restarted.wait_ready());
    EXPECT_THAT(restarted.printed(), HasSubstr("bg=1\n"));
    std::string status;
    EXPECT_EQ(run_client(home, {restarted.socket(), "status"}, &status), 0);
    EXPECT_THAT(status, HasSubstr("\"aspect ratio\": [16, 9]"));
    EXPECT_THAT(status, HasSubstr("\"background music\": true"));
}

TEST_F(Clients, StatusHoldsTheImageInfo)
{
    std::string status;
    EXPECT_EQ(run_client(home, {served->socket(), "status"}, &status), 0);
    EXPECT_THAT(status, HasSubstr("\"image info\": {\"file type\": \"JPEG\", \"height\": 859, "
                                  "\"width\": 1165}"));
}

TEST_F(Clients, ToolReportsTheOutcomeInItsExitStatus)
{
    const std::string socket = served->socket();
    EXPECT_EQ(run_client(home, {socket, "wait", "--timeout", "5"}), 0);
    EXPECT_EQ(run_client(home, {socket, "save", home.path("no/such/folder.png")}), 1);
    EXPECT_EQ(run_client(home, {socket, "dance"}), 2);
    EXPECT_EQ(run_client(home, {home.path("nobody"), "status"}), 3);
    EXPECT_EQ(run_client(home, {socket, "save", home.path("out.png"), "--size", "100x80"}), 0);
    EXPECT_TRUE(home.folder().read("out.png").starts_with("\x89PNG"));
}

TEST_F(Clients, NumbersThatMakeNoSenseAreUsageErrors)
{
    const std::string socket = served->socket();
    for (const char* position : {"-1", "", "x", "1x", "0x10", "1.5", "99999999999999999999"}) {
        EXPECT_EQ(run_client(home, {socket, "frame", "--at", position}), 2) << position;
        EXPECT_EQ(run_client(home, {socket, "save", home.path("out.png"),
                                    std::string("--at=") + position}),
                  2)
            << position;
    }
    for (const char* seconds : {"-1", "", "x", "1x", "nan", "inf", "1000001"}) {
        EXPECT_EQ(run_client(home, {socket, "wait", "--timeout", seconds}), 2) << seconds;
    }
    EXPECT_FALSE(home.folder().has("out.png"));
    EXPECT_EQ(run_client(home, {socket, "frame", "--at", "18446744073709551615"}), 0);
    EXPECT_EQ(run_client(home, {socket, "frame", "--at", "0", "--timeout", "20.5"}), 0);
}

TEST_F(Clients, DumpHoldsThePlanesAndTheRecord)
{
    ASSERT_EQ(run_client(home, {served->socket(), "dump", home.path("dump")}), 0);
    EXPECT_EQ(home.folder().read("dump/Y.raw").size(), 1168U * 859U);
    EXPECT_EQ(home.folder().read("dump/U.raw").size(), 584U * 430U);
    EXPECT_EQ(home.folder().read("dump/V.raw").size(), 584U * 430U);
    EXPECT_FALSE(home.folder().has("dump/A.raw"));
    EXPECT_EQ(home.folder().read("dump/scanline.bin").size(), 197U);
    EXPECT_THAT(home.folder().read("dump/frame.json"), HasSubstr("\"end_mark\": \"END!\""));
}

} // namespace
