// Several workers at once, signals at any time, and what a worker that ended leaves behind.
#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/worker.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/peacock-420.jpg";
const std::string photograph = STILLIMAGE_TEST_DATA "/jpeg/landscape-420.jpg"; // 75 row groups

class Life : public testing::Test {
protected:
    // A grey picture whose buffer takes a little more than `megabytes`.
    std::string large_picture(const char* name, int megabytes)
    {
        const auto file = jpeg_writer::write(jpeg_writer::grey(4096, 256 * megabytes));
        return home.folder().write(name, {reinterpret_cast<const char*>(file.data()), file.size()});
    }

    void expect_quit(worker& served)
    {
        EXPECT_EQ(run_client(home, {served.socket(), "quit"}), 0);
        EXPECT_EQ(served.wait_end(), 0);
        EXPECT_THAT(served.printed(), HasSubstr("Caller requested to exit\n"));
    }

    worker_home home;
};

TEST_F(Life, TwoPicturesAreServedAtOnce)
{
    worker first(home, picture);
    worker second(home, photograph);
    EXPECT_TRUE(first.wait_ready());
    EXPECT_TRUE(second.wait_ready());
    expect_quit(first);
    EXPECT_TRUE(second.wait_ready());
    expect_quit(second);
    EXPECT_TRUE(home.sockets().empty());
}

TEST_F(Life, SecondWorkerOnTheSameItemIsRefusedAndTheFirstContinues)
{
    worker first(home, {{"--file", picture, "--no-autoshutdown"}});
    ASSERT_TRUE(first.wait_printed("Generating mipmap"));
    const ended_worker second = run_worker(home, {{"--file", picture, "--no-autoshutdown"}});
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.printed, HasSubstr(std::to_string(first.pid())));
    EXPECT_THAT(second.printed, HasSubstr(".sock"));
    EXPECT_THAT(second.printed, EndsWith("Failed to obtain derived params\n"));
    EXPECT_EQ(run_client(home, {picture, "wait", "--timeout", "20"}), 0);
    EXPECT_EQ(run_client(home, {picture, "quit"}), 0);
    EXPECT_EQ(first.wait_end(), 0);
}

TEST_F(Life, WorkerStartsAfterAKilledOne)
{
    const worker::setting how = {{"--file", picture, "--no-autoshutdown"}};
    for (int round = 0; round < 3; ++round) {
        worker served(home, how);
        ASSERT_EQ(run_client(home, {picture, "wait", "--timeout", "20"}), 0) << round;
        served.send(SIGKILL);
        EXPECT_EQ(served.wait_end(), -SIGKILL);
    }
    worker again(home, how);
    EXPECT_EQ(run_client(home, {picture, "wait", "--timeout", "20"}), 0);
    EXPECT_EQ(run_client(home, {picture, "quit"}), 0);
    EXPECT_EQ(again.wait_end(), 0);
}

TEST_F(Life, KilledAtAnyMomentTheNextStartWorks)
{
    for (int delay_ms = 0; delay_ms < 30; delay_ms += 2) {
        worker served(home, {{"--file", photograph}});
        pause_ms(delay_ms);
        served.send(delay_ms % 4 == 0 ? SIGKILL : SIGABRT);
        served.wait_end();
    }
    EXPECT_EQ(run_worker(home, {{"--file", photograph, "--oneshot"}}).status, 0);
}

TEST_F(Life, SignalDuringDecodingEndsTheRunCleanly)
{
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT}) {
        worker served(home, photograph, {"--slow-decode"});
        ASSERT_TRUE(served.wait_printed("Using CNB buffer"));
        served.send(signal);
        EXPECT_EQ(served.wait_end(), 0);
        EXPECT_THAT(served.printed(), Not(HasSubstr("Generating mipmap")));
        EXPECT_THAT(served.printed(), HasSubstr("Cleaning up\n"));
        EXPECT_TRUE(home.sockets().empty());
    }
}

TEST_F(Life, SignalWhileServingEndsTheRunCleanly)
{
    worker served(home, picture);
    ASSERT_TRUE(served.wait_ready());
    served.send(SIGTERM);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_TRUE(home.sockets().empty());
}

TEST_F(Life, TwentySignalsAbort)
{
    worker served(home, photograph, {"--slow-decode"});
    ASSERT_TRUE(served.wait_printed("Using CNB buffer"));
    served.send(SIGSTOP); // so that the signals are pending together
    // Signals of one kind do not queue, so send them one at a time.
    for (int i = 0; i < 200 && served.wait_end(1) == worker::no_end; ++i) {
        served.send(SIGTERM);
        served.send(SIGINT);
        served.send(SIGQUIT);
        served.send(SIGCONT);
    }
    const int end = served.wait_end();
    EXPECT_TRUE(end == -SIGABRT || end == 0) << end; // 0: it ended before the twentieth
}

TEST_F(Life, ClientsReceiveTheProgressOfDecoding)
{
    worker served(home, photograph, {"--slow-decode"});
    stillimage_client* client = nullptr;
    ASSERT_EQ(stillimage_connect(served.socket().c_str(), 30'000, &client), STILLIMAGE_OK);
    stillimage_frame* frame = nullptr;
    EXPECT_EQ(stillimage_get_frame(client, 0, 0, 0, 0, &frame), STILLIMAGE_ERROR_NOT_READY);
    struct seen {
        int percent = -1;
        bool ready = false;
        bool going_down = false;
    } state;
    const auto note = [](void* user, const stillimage_event* event) {
        auto* s = static_cast<seen*>(user);
        if (event->percent > 0 && event->percent < 100 && event->ready == 0) {
            EXPECT_STREQ(event->progress, "Decoding JPEG");
            s->percent = std::max(s->percent, event->percent);
        }
        s->ready = s->ready || event->ready == 1;
        s->going_down = s->going_down || (event->changes & STILLIMAGE_CHANGE_GOING_DOWN) != 0;
    };
    const uint32_t mask =
        STILLIMAGE_CHANGE_PROGRESS | STILLIMAGE_CHANGE_READY | STILLIMAGE_CHANGE_GOING_DOWN;
    ASSERT_EQ(stillimage_subscribe(client, mask, note, &state, 30'000), STILLIMAGE_OK);
    EXPECT_EQ(stillimage_get_frame(client, 0, 0, 0, 30'000, &frame), STILLIMAGE_OK);
    stillimage_frame_release(frame);
    EXPECT_GT(state.percent, 0);
    EXPECT_TRUE(state.ready);
    served.send(SIGTERM);
    while (stillimage_dispatch(client, 30'000) == STILLIMAGE_OK && !state.going_down) {
    }
    EXPECT_TRUE(state.going_down);
    stillimage_close(client);
    EXPECT_EQ(served.wait_end(), 0);
}

// --- the buffer domain --------------------------------------------------------------------------

TEST_F(Life, RequestLargerThanTheDomainIsRefusedAtOnce)
{
    const ended_worker ended =
        run_worker(home, {{"--file", large_picture("large.jpg", 8), "--domain-limit", "4M"}});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, EndsWith("CNB allocation failed\n"));
}

TEST_F(Life, WaitingWorkerAnswersClientsAndTakesAFreedBuffer)
{
    const std::string large = large_picture("large.jpg", 8);
    const std::vector<std::string> limit = {"--domain-limit", "16M"};
    worker first(home, large, limit);
    ASSERT_TRUE(first.wait_ready());
    worker second(home, large, limit);
    stillimage_client* client = nullptr;
    ASSERT_EQ(stillimage_connect(second.socket().c_str(), 30'000, &client), STILLIMAGE_OK);
    EXPECT_EQ(stillimage_ping(client, 30'000), STILLIMAGE_OK);
    EXPECT_THAT(second.printed(), Not(HasSubstr("Using CNB buffer")));
    expect_quit(first);
    EXPECT_EQ(stillimage_wait_ready(client, 0, 30'000), STILLIMAGE_OK);
    stillimage_close(client);
    expect_quit(second);
}

TEST_F(Life, SignalEndsTheWaitForTheBuffer)
{
    const std::string large = large_picture("large.jpg", 8);
    const std::vector<std::string> limit = {"--domain-limit", "16M"};
    const worker first(home, large, limit);
    ASSERT_TRUE(first.wait_ready());
    worker second(home, large, limit);
    stillimage_client* client = nullptr;
    ASSERT_EQ(stillimage_connect(second.socket().c_str(), 30'000, &client), STILLIMAGE_OK);
    stillimage_close(client);
    second.send(SIGTERM);
    EXPECT_EQ(second.wait_end(), 0);
    EXPECT_THAT(second.printed(), HasSubstr("Cleaning up\n"));
}

} // namespace
