// The client library with workers that are stopped, killed or restarted: each call returns in time,
// nothing leaks, and frames that a client holds stay readable.
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using testing::AnyOf;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/peacock-420.jpg";

constexpr int patience_ms = 30'000; // never reached by a test that passes
constexpr int short_ms = 50;        // for workers that do not answer

struct client_call {
    const char* name;
    stillimage_result (*make)(stillimage_client* client, const std::string& socket, int limit_ms);
};

stillimage_result call_connect(stillimage_client* /*client*/, const std::string& socket,
                               int limit_ms)
{
    stillimage_client* other = nullptr;
    const stillimage_result result = stillimage_connect(socket.c_str(), limit_ms, &other);
    stillimage_close(other);
    return result;
}

stillimage_result call_get_frame(stillimage_client* client, const std::string& /*socket*/,
                                 int limit_ms)
{
    stillimage_frame* frame = nullptr;
    const stillimage_result result = stillimage_get_frame(client, 0, 64, 64, limit_ms, &frame);
    stillimage_frame_release(frame);
    return result;
}

stillimage_result call_get_timeline(stillimage_client* client, const std::string& /*socket*/,
                                    int limit_ms)
{
    const stillimage_timeline* timeline = nullptr;
    const stillimage_result result = stillimage_get_timeline(client, limit_ms, &timeline);
    stillimage_timeline_free(timeline);
    return result;
}

stillimage_result call_get_status(stillimage_client* client, const std::string& /*socket*/,
                                  int limit_ms)
{
    char* json = nullptr;
    const stillimage_result result = stillimage_get_status(client, limit_ms, &json);
    stillimage_free(json);
    return result;
}

void hear_nothing(void* /*user*/, const stillimage_event* /*event*/) {}

// Every call that waits for an answer of the worker.
const client_call calls[] = {
    {"connect", call_connect},
    {"get_frame", call_get_frame},
    {"get_timeline", call_get_timeline},
    {"get_status", call_get_status},
    {"ping", [](stillimage_client* client, const std::string&,
                int limit_ms) { return stillimage_ping(client, limit_ms); }},
    {"set_metadata",
     [](stillimage_client* client, const std::string&, int limit_ms) {
         return stillimage_set_metadata(client, "aspect ratio", "4:3", limit_ms);
     }},
    {"subscribe",
     [](stillimage_client* client, const std::string&, int limit_ms) {
         return stillimage_subscribe(client, STILLIMAGE_CHANGE_METADATA, hear_nothing, nullptr,
                                     limit_ms);
     }},
    {"wait_ready", [](stillimage_client* client, const std::string&,
                      int limit_ms) { return stillimage_wait_ready(client, 0, limit_ms); }},
    {"reconnect", [](stillimage_client* client, const std::string&,
                     int limit_ms) { return stillimage_reconnect(client, limit_ms); }},
    {"quit", [](stillimage_client* client, const std::string&,
                int limit_ms) { return stillimage_quit(client, limit_ms); }},
};

size_t own_descriptors()
{
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

class ClientAdversity : public testing::Test {
protected:
    // With the default action, a SIGPIPE that the library lets through ends this process.
    ClientAdversity() : former_(signal(SIGPIPE, SIG_DFL)) {}
    ~ClientAdversity() override { signal(SIGPIPE, former_); }

    worker_home home;

private:
    sighandler_t former_;
};

TEST_F(ClientAdversity, EachCallToAStoppedWorkerTimesOut)
{
    for (const client_call& call : calls) {
        worker served(home, picture);
        ASSERT_TRUE(served.wait_ready());
        const held_client client = connect_to(served.socket());
        served.send(SIGSTOP);
        EXPECT_EQ(call.make(client.get(), served.socket(), short_ms), STILLIMAGE_ERROR_TIMEOUT)
            << call.name;
        served.send(SIGCONT);
        if (std::string(call.name) == "quit") {
            EXPECT_EQ(served.wait_end(), 0); // the request arrived before the time limit
            continue;
        }
        EXPECT_EQ(stillimage_reconnect(client.get(), patience_ms), STILLIMAGE_OK) << call.name;
        EXPECT_EQ(call.make(client.get(), served.socket(), patience_ms), STILLIMAGE_OK)
            << call.name << ": " << stillimage_last_error(client.get());
    }
}

TEST_F(ClientAdversity, LateAnswersDoNoHarm)
{
    worker served(home, picture);
    ASSERT_TRUE(served.wait_ready());
    const held_client client = connect_to(served.socket());
    for (int round = 0; round < 3; ++round) {
        served.send(SIGSTOP);
        for (const client_call& call : calls) {
            const std::string name = call.name;
            if (name != "quit" && name != "reconnect") {
                EXPECT_EQ(call.make(client.get(), served.socket(), short_ms / 5),
                          STILLIMAGE_ERROR_TIMEOUT)
                    << name;
            }
        }
        EXPECT_EQ(stillimage_dispatch(client.get(), 0), STILLIMAGE_OK);
        served.send(SIGCONT);
        for (const client_call& call : calls) {
            const std::string name = call.name;
            if (name != "quit" && name != "reconnect") {
                EXPECT_EQ(call.make(client.get(), served.socket(), patience_ms), STILLIMAGE_OK)
                    << name << ": " << stillimage_last_error(client.get());
            }
        }
    }
}

TEST_F(ClientAdversity, EachCallReportsThatItsWorkerIsKilled)
{
    const size_t descriptors = own_descriptors();
    for (const client_call& call : calls) {
        worker served(home, picture);
        ASSERT_TRUE(served.wait_ready());
        const held_client client = connect_to(served.socket());
        served.send(SIGSTOP); // so that the call is still waiting when the worker is killed
        std::thread killer([&] {
            pause_ms(20);
            served.send(SIGKILL);
        });
        const stillimage_result result = call.make(client.get(), served.socket(), patience_ms);
        killer.join();
        EXPECT_EQ(result, STILLIMAGE_ERROR_NO_WORKER) << call.name;
        if (std::string(call.name) != "connect") {
            EXPECT_EQ(stillimage_descriptor(client.get()), -1) << call.name;
        }
        EXPECT_EQ(stillimage_ping(client.get(), patience_ms), STILLIMAGE_ERROR_NO_WORKER);
        EXPECT_EQ(stillimage_dispatch(client.get(), patience_ms), STILLIMAGE_ERROR_NO_WORKER);
    }
    EXPECT_EQ(own_descriptors(), descriptors);
}

TEST_F(ClientAdversity, DispatchReportsAKilledWorkerAtOnce)
{
    worker served(home, picture);
    ASSERT_TRUE(served.wait_ready());
    const held_client client = connect_to(served.socket());
    served.send(SIGKILL);
    served.wait_end();
    EXPECT_EQ(stillimage_dispatch(client.get(), patience_ms), STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_STREQ(stillimage_last_error(client.get()), "the worker has gone");
}

TEST_F(ClientAdversity, WorkersKilledAtAnyMomentLeakNothing)
{
    constexpr int rounds = 60;
    const size_t descriptors = own_descriptors();
    const size_t mappings = mappings_of_memory_files();
    std::mt19937 random(1);
    for (int round = 0; round < rounds; ++round) {
        worker served(home, picture);
        ASSERT_TRUE(served.wait_ready());
        const held_client client = connect_to(served.socket());
        const auto wait_us = random() % 1500;
        std::thread killer([&, wait_us] {
            std::this_thread::sleep_for(std::chrono::microseconds(wait_us));
            served.send(SIGKILL);
        });
        stillimage_result result = STILLIMAGE_OK;
        while (result == STILLIMAGE_OK) {
            const client_call& call = calls[1 + random() % (std::size(calls) - 3)];
            result = call.make(client.get(), served.socket(), patience_ms);
            EXPECT_THAT(result, AnyOf(STILLIMAGE_OK, STILLIMAGE_ERROR_NO_WORKER)) << call.name;
        }
        killer.join();
    }
    EXPECT_EQ(own_descriptors(), descriptors);
    EXPECT_EQ(mappings_of_memory_files(), mappings);
}

TEST_F(ClientAdversity, FramesStayReadableWhenTheWorkerIsKilled)
{
    const auto png_of = [](const held_frame& frame) {
        uint8_t* file = nullptr;
        size_t size = 0;
        EXPECT_EQ(stillimage_picture_to_png(stillimage_frame_picture(frame.get()), &file, &size),
                  STILLIMAGE_OK);
        std::string bytes(reinterpret_cast<const char*>(file), size);
        stillimage_free(file);
        return bytes;
    };
    const size_t mappings = mappings_of_memory_files();
    {
        held_frame whole;
        held_frame level;
        std::string expected;
        std::string expected_level;
        {
            worker served(home, picture);
            ASSERT_TRUE(served.wait_ready());
            const held_client client = connect_to(served.socket());
            whole = take_frame(client);
            level = take_frame(client, 0, 32, 32);
            ASSERT_TRUE(whole && level);
            expected = png_of(whole);
            expected_level = png_of(level);
            served.send(SIGKILL);
            served.wait_end();
            EXPECT_EQ(stillimage_ping(client.get(), patience_ms), STILLIMAGE_ERROR_NO_WORKER);
            EXPECT_TRUE(png_of(whole) == expected);
        }
        EXPECT_TRUE(png_of(whole) == expected);
        EXPECT_TRUE(png_of(level) == expected_level);
        EXPECT_EQ(mappings_of_memory_files(), mappings + 1); // shared by both frames
    }
    EXPECT_EQ(mappings_of_memory_files(), mappings);
}

TEST_F(ClientAdversity, ReconnectFindsARestartedWorkerAndOldFramesStay)
{
    const worker::setting how = {
        {"--file", picture, "--no-autoshutdown", "--sock", home.path("socket")}};
    held_client client;
    held_frame first;
    {
        worker served(home, how);
        client = connect_to(home.path("socket"));
        first = take_frame(client);
        ASSERT_TRUE(first);
        served.send(SIGKILL);
        served.wait_end();
    }
    const uint8_t* luma = stillimage_frame_picture(first.get())->plane[STILLIMAGE_Y];
    const uint8_t before = luma[0];
    const worker again(home, how);
    ASSERT_EQ(stillimage_reconnect(client.get(), patience_ms), STILLIMAGE_OK)
        << stillimage_last_error(client.get());
    const held_frame second = take_frame(client);
    ASSERT_TRUE(second);
    EXPECT_NE(stillimage_frame_picture(second.get())->plane[STILLIMAGE_Y], luma);
    EXPECT_EQ(luma[0], before);
    first.reset(); // its worker no longer exists
    EXPECT_EQ(stillimage_ping(client.get(), patience_ms), STILLIMAGE_OK);
}

} // namespace
