// The library against workers that behave, misbehave, stop answering or die.
#include <fcntl.h>
#include <future>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/started_worker.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_worker.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/refused_calls.h"
#include "tests/unit/client/opened.h"

namespace {

using namespace comm_protocol;

// --- connecting ----------------------------------------------------------------------------------

TEST(ClientConnection, GreetingCarriesTheProcessIdOfTheWorker)
{
    const fake_worker worker([](fake_peer& peer) {
        peer.greet();
        peer.await_end();
    });
    const opened connection(worker.path());
    ASSERT_EQ(connection.result, STILLIMAGE_OK) << connection.error();
    EXPECT_EQ(stillimage_worker_pid(connection.client), 4321);
    EXPECT_GE(stillimage_descriptor(connection.client), 0);
    EXPECT_EQ(connection.error(), "");
}

TEST(ClientConnection, MissingWorkerIsReportedWithThePath)
{
    const temporary_folder folder;
    const std::string path = folder.path("missing");
    const opened connection(path, 0);
    EXPECT_EQ(connection.result, STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_EQ(connection.error(), "no worker serves at " + path + ": there is no such socket");
    EXPECT_EQ(stillimage_descriptor(connection.client), -1);
    const opened file(folder.write("file", "x"), 0);
    EXPECT_EQ(file.result, STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_EQ(file.error(), "no worker serves at " + folder.path("file") + ": Connection refused");
}

TEST(ClientConnection, InvalidSocketPathIsRefused)
{
    EXPECT_EQ(opened("").result, STILLIMAGE_ERROR_ARGUMENT);
    const std::string path(108, 'x');
    const opened connection(path);
    EXPECT_EQ(connection.result, STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(connection.error(), "not a socket path of 1 to 107 bytes: " + path);
}

TEST(ClientConnection, OtherMajorVersionIsRefused)
{
    const fake_worker worker([](fake_peer& peer) {
        packet_bytes answer = encode(peer.next().request, error{VERSION_MISMATCH, "no"});
        answer[4] = 2;
        peer.send(answer);
        peer.await_end();
    });
    const opened connection(worker.path());
    EXPECT_EQ(connection.result, STILLIMAGE_ERROR_REFUSED);
    EXPECT_EQ(connection.error(),
              "the worker speaks version 2 of the protocol, this library version 1");
}

TEST(ClientConnection, RefusalBeforeTheGreetingIsReadAfterTheWorkerHungUp)
{
    const fake_worker worker([](fake_peer& peer) {
        peer.send(encode(0, error{NOT_ALLOWED, "the process of another user"}));
        peer.hang_up();
    });
    const opened connection(worker.path());
    EXPECT_EQ(connection.result, STILLIMAGE_ERROR_REFUSED);
    EXPECT_EQ(connection.error(), "the worker says: the process of another user");
}

TEST(ClientConnection, WorkerOfAnotherUserIsRefusedBeforeAnythingIsSent)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs the rights to become another user";
    }
    constexpr uid_t stranger = unprivileged_user - 1;
    const fake_worker worker([](fake_peer& peer) {
        peer.greet();
        peer.await_end();
    });
    // 0: connected; 1: refused because of the owner and closed; 2: anything else.
    const auto nobody_connects = [&worker] {
        return run_without_privileges([&worker] {
            const opened connection(worker.path());
            if (connection.result == STILLIMAGE_OK) {
                return 0;
            }
            return connection.result == STILLIMAGE_ERROR_REFUSED &&
                           connection.error() ==
                               "the worker at " + worker.path() + " belongs to another user" &&
                           stillimage_descriptor(connection.client) == -1
                       ? 1
                       : 2;
        });
    };
    ASSERT_TRUE(worker.belong_to(stranger));
    EXPECT_EQ(nobody_connects(), 1);
    // The superuser may connect to any worker.
    EXPECT_EQ(opened(worker.path()).result, STILLIMAGE_OK);
    ASSERT_TRUE(worker.belong_to(unprivileged_user));
    EXPECT_EQ(nobody_connects(), 0);
    ASSERT_TRUE(worker.belong_to(0)); // a worker of the superuser
    EXPECT_EQ(nobody_connects(), 0);
}

TEST(ClientConnection, SilentWorkerCausesATimeout)
{
    const fake_worker worker([](fake_peer& peer) { peer.await_end(); });
    const opened connection(worker.path(), silence_ms);
    EXPECT_EQ(connection.result, STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(connection.error(), "the worker did not answer in time");
}

TEST(ClientConnection, MalformedPacketsEndTheConnection)
{
    const packet_bytes sound = encode(1, hello_answer{1, 2, 0});
    packet_bytes other_magic = sound;
    other_magic[0] ^= 1U;
    const packet_bytes half(sound.begin(), sound.begin() + 12);
    const packet_bytes without_body(sound.begin(), sound.begin() + 30);
    const packet_bytes too_large(max_packet_size + 1, 0);
    for (const packet_bytes& packet : {other_magic, half, without_body, too_large}) {
        const fake_worker worker([&](fake_peer& peer) {
            peer.next();
            peer.send(packet);
            peer.await_end();
        });
        const opened connection(worker.path());
        EXPECT_EQ(connection.result, STILLIMAGE_ERROR_PROTOCOL);
        EXPECT_EQ(connection.error(), packet.size() > max_packet_size
                                          ? "the worker sent a packet that is too large"
                                          : "the worker sent a malformed packet");
        EXPECT_EQ(stillimage_descriptor(connection.client), -1);
        EXPECT_EQ(stillimage_ping(connection.client, patience_ms), STILLIMAGE_ERROR_NO_WORKER);
    }
}

TEST(ClientConnection, FloodOfEventsDoesNotExtendTheTimeLimit)
{
    const fake_worker worker([](fake_peer& peer) {
        peer.greet();
        while (peer.send(encode(99, event{0, 1, 0, "flood"}))) {
        }
    });
    const opened connection(worker.path());
    ASSERT_EQ(connection.result, STILLIMAGE_OK);
    EXPECT_EQ(stillimage_ping(connection.client, silence_ms), STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(stillimage_dispatch(connection.client, 0), STILLIMAGE_OK);
    EXPECT_EQ(stillimage_wait_ready(connection.client, 0, silence_ms), STILLIMAGE_ERROR_TIMEOUT);
}

// --- the end of a worker -------------------------------------------------------------------------

TEST(ClientConnection, WorkerThatDiesDuringACallIsReportedAndNothingLeaks)
{
    constexpr int rounds = 300;
    const frame_sample sample;
    int step = 0;
    const fake_worker worker([&](fake_peer& peer) {
        const int memory = sealed_memory(sample.area);
        if (step % 3 > 0) {
            peer.greet();
        }
        if (step % 3 > 1) {
            peer.serve_frame(sample, memory);
        }
        close(memory);
        ++step;
    });
    const size_t before = open_descriptors();
    for (int i = 0; i < rounds; ++i) {
        const opened connection(worker.path());
        stillimage_frame* frame = nullptr;
        const stillimage_result got = connection.get(&frame);
        char* json = nullptr;
        EXPECT_EQ(stillimage_get_status(connection.client, patience_ms, &json),
                  STILLIMAGE_ERROR_NO_WORKER);
        EXPECT_EQ(json, nullptr);
        EXPECT_EQ(stillimage_quit(connection.client, patience_ms), STILLIMAGE_ERROR_NO_WORKER);
        EXPECT_EQ(connection.error(), "the worker has gone");
        EXPECT_TRUE(got == STILLIMAGE_OK || got == STILLIMAGE_ERROR_NO_WORKER);
        stillimage_frame_release(frame);
    }
    // The worker may not have closed its last connection yet.
    EXPECT_LE(open_descriptors(), before + 2);
    EXPECT_GE(step, rounds - 1);
}

// --- status and changes --------------------------------------------------------------------------

std::string status_of(const std::vector<status_part>& parts, stillimage_result expected)
{
    const fake_worker worker([&](fake_peer& peer) {
        peer.greet();
        const packet_header header = peer.next(GET_STATUS);
        for (const status_part& part : parts) {
            peer.send(encode(header.request, part));
        }
        peer.await_end();
    });
    const opened connection(worker.path());
    char* json = nullptr;
    EXPECT_EQ(stillimage_get_status(connection.client, patience_ms, &json), expected);
    const std::string text = json != nullptr ? json : connection.error();
    stillimage_free(json);
    return text;
}

TEST(ClientStatus, PartsAreJoined)
{
    EXPECT_EQ(status_of({{7, 0, "{\"a"}, {7, 3, "\":1}"}}, STILLIMAGE_OK), "{\"a\":1}");
    EXPECT_EQ(status_of({{0, 0, ""}}, STILLIMAGE_OK), "");
}

TEST(ClientStatus, BrokenPartsAreRefused)
{
    const std::string broken = "the worker sent a broken document";
    EXPECT_EQ(status_of({{7, 1, "abc"}}, STILLIMAGE_ERROR_PROTOCOL), broken);
    EXPECT_EQ(status_of({{2, 0, "abc"}}, STILLIMAGE_ERROR_PROTOCOL), broken);
    EXPECT_EQ(status_of({{7, 0, "abc"}, {7, 4, "e"}}, STILLIMAGE_ERROR_PROTOCOL), broken);
    EXPECT_EQ(status_of({{7, 0, ""}}, STILLIMAGE_ERROR_PROTOCOL), broken);
    EXPECT_EQ(status_of({{(16U << 20U) + 1, 0, "abc"}}, STILLIMAGE_ERROR_PROTOCOL), broken);
}

struct seen_events {
    std::string text;
    stillimage_client* client = nullptr;
};

void note_event(void* user, const stillimage_event* event)
{
    auto* seen = static_cast<seen_events*>(user);
    seen->text += std::to_string(event->changes) + "/" + std::to_string(event->percent) + "/" +
                  std::to_string(event->ready) + "/" + event->progress +
                  (event->document != nullptr ? event->document : "") + " ";
    EXPECT_EQ(stillimage_ping(seen->client, 0), STILLIMAGE_ERROR_ARGUMENT);
}

TEST(ClientChanges, HandlerGetsTheSubscribedEventsAndReadinessIsStillNoticed)
{
    uint32_t mask = 0;
    const fake_worker worker([&](fake_peer& peer) {
        peer.greet();
        const uint64_t number = peer.next(SUBSCRIBE).request;
        mask = peer.request[packet_header_size];
        peer.send(encode_empty(number, DONE));
        peer.send(encode(number, event{0, 5, 0, "begun"}));
        peer.send(encode(number, status_part{2, 0, "{"}));
        peer.send(encode(number, status_part{2, 1, "}"}));
        peer.send(encode(number, event{change_provisional, 50, -1, "half"}));
        peer.send(encode(number, event{change_ready, 900, 7, "done"}));
        peer.await_end();
    });
    const opened connection(worker.path());
    seen_events seen;
    seen.client = connection.client;
    ASSERT_EQ(stillimage_subscribe(seen.client, STILLIMAGE_CHANGE_DOCUMENT, note_event, &seen,
                                   patience_ms),
              STILLIMAGE_OK);
    EXPECT_EQ(mask, change_document | change_ready | change_provisional);
    EXPECT_EQ(stillimage_wait_ready(seen.client, 1, patience_ms), STILLIMAGE_OK);
    EXPECT_EQ(stillimage_wait_ready(seen.client, 0, patience_ms), STILLIMAGE_OK);
    EXPECT_EQ(seen.text, "0/5/0/begun 64/5/0/begun{} ");
}

// The client sends nothing to a server whose user it cannot find out.
TEST(ClientConnection, ServerWithUnknownUserIsDisconnected)
{
    EXPECT_EQ(
        run_in_child([] {
            std::promise<bool> asked;
            const fake_worker worker([&asked](fake_peer& peer) {
                asked.set_value(peer.next().type != 0); // false when the connection ends instead
            });
            if (!refuse_calls({"getsockopt"})) {
                return 2;
            }
            stillimage_client* client = nullptr;
            const bool left =
                stillimage_connect(worker.path().c_str(), patience_ms, &client) ==
                    STILLIMAGE_ERROR_SYSTEM &&
                std::string(stillimage_last_error(client)).starts_with("cannot ask who serves: ") &&
                stillimage_descriptor(client) == -1 &&
                stillimage_ping(client, 0) == STILLIMAGE_ERROR_NO_WORKER;
            stillimage_close(client);
            return left && !asked.get_future().get() ? 0 : 1;
        }),
        0);
}

TEST(ClientChanges, WaitForReadinessEndsAtTheTimeLimitOrWithTheWorker)
{
    const fake_worker worker([](fake_peer& peer) {
        peer.greet();
        const uint64_t number = peer.next(SUBSCRIBE).request;
        peer.send(encode_empty(number, DONE));
        peer.send(encode(number, event{0, 5, -1, ""}));
        peer.next(); // the ping
    });
    const opened connection(worker.path());
    EXPECT_EQ(stillimage_wait_ready(connection.client, 1, patience_ms), STILLIMAGE_OK);
    EXPECT_EQ(stillimage_wait_ready(connection.client, 0, silence_ms), STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(stillimage_ping(connection.client, patience_ms), STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_EQ(stillimage_wait_ready(connection.client, 0, -1), STILLIMAGE_ERROR_NO_WORKER);
}

// --- output of a started worker ------------------------------------------------------------------

TEST(StartedWorkerOutput, IsReadInPortionsHoweverMuchThereIs)
{
    constexpr size_t kept = 16'384;
    const unique_fd endless(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    std::string output = "first";
    EXPECT_TRUE(read_portion(endless.get(), &output));
    EXPECT_EQ(output, std::string(kept, '\0'));
}

TEST(StartedWorkerOutput, EndIsNotTheSameAsSilence)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const unique_fd reading(ends[0]);
    unique_fd writing(ends[1]);
    std::string output = "before ";
    EXPECT_TRUE(read_portion(reading.get(), &output));
    ASSERT_EQ(write(writing.get(), "text", 4), 4);
    EXPECT_TRUE(read_portion(reading.get(), &output));
    EXPECT_EQ(output, "before text");
    writing.reset();
    EXPECT_FALSE(read_portion(reading.get(), &output));
    EXPECT_EQ(output, "before text");
}

// --- arguments -----------------------------------------------------------------------------------

TEST(ClientArguments, NullIsRefusedOrIgnored)
{
    stillimage_client* client = nullptr;
    EXPECT_EQ(stillimage_connect(nullptr, 0, &client), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_connect("x", 0, nullptr), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_ping(nullptr, 0), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_descriptor(nullptr), -1);
    EXPECT_EQ(stillimage_worker_pid(nullptr), 0);
    EXPECT_STREQ(stillimage_last_error(nullptr), "");
    EXPECT_EQ(stillimage_frame_picture(nullptr)->width, 0);
    EXPECT_EQ(stillimage_frame_descriptor(nullptr)->buffer, 0);
    stillimage_close(nullptr);
    stillimage_frame_release(nullptr);
    stillimage_free(nullptr);
}

TEST(ClientArguments, MetadataOfInvalidLengthIsNotSent)
{
    const fake_worker worker([](fake_peer& peer) {
        peer.greet();
        peer.next(SET_METADATA);
        peer.await_end();
    });
    const opened connection(worker.path());
    const auto set = [&](size_t name, size_t value) {
        return stillimage_set_metadata(connection.client, std::string(name, 'n').c_str(),
                                       std::string(value, 'v').c_str(), silence_ms);
    };
    EXPECT_EQ(set(257, 1), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(connection.error(),
              "a name of at most 256 bytes and a value of at most 16384 are needed");
    EXPECT_EQ(set(1, 16385), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(set(256, 16384), STILLIMAGE_ERROR_TIMEOUT);
}

TEST(ClientResults, EveryResultHasAText)
{
    for (int result = STILLIMAGE_ERROR_NOT_STORED; result <= STILLIMAGE_OK; ++result) {
        EXPECT_STRNE(stillimage_result_text(static_cast<stillimage_result>(result)),
                     "unknown result");
    }
    EXPECT_STREQ(stillimage_result_text(STILLIMAGE_OK), "done");
    EXPECT_STREQ(stillimage_result_text(static_cast<stillimage_result>(-13)), "unknown result");
    EXPECT_EQ(stillimage_client_version(), 0x10001);
}

} // namespace
