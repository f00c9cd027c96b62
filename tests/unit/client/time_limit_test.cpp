// Slow workers: how long the tool, and the library beneath it, wait for them.
#include <atomic>
#include <chrono>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "client/tool/session.h"
#include "tests/support/held_time.h"
#include "tests/unit/client/call_outcome.h"
#include "tests/unit/client/opened.h"

namespace {

using namespace comm_protocol;

void pause_ms(int duration)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(duration));
}

// --- the limit of a whole command ----------------------------------------------------------------

constexpr int limit_ms = 120;
constexpr int step_ms = 80; // twice this exceeds the limit

void answer(fake_peer& peer, const packet_header& request, const frame_sample& sample, int memory)
{
    switch (request.type) {
    case SUBSCRIBE:
        peer.send(encode_empty(request.request, DONE));
        peer.send(encode(request.request, event{change_ready, 100, 1, ""}));
        break;
    case GET_STATUS:
        peer.send(encode(request.request, status_part{2, 0, "{}"}));
        break;
    case GET_FRAME:
        peer.send_with_descriptor(encode(request.request, sample.message), memory);
        break;
    default:
        peer.send(encode_empty(request.request, DONE));
    }
}

// Each single answer arrives well within the limit.
outcome run_against_slow_worker(exit_status (*call)(const call_options&), call_options options)
{
    const frame_sample sample;
    const int memory = sealed_memory(sample.area);
    outcome result;
    {
        const fake_worker worker([&](fake_peer& peer) {
            peer.greet();
            for (packet_header header = peer.next(); header.type != 0; header = peer.next()) {
                answer(peer, header, sample, memory);
            }
        });
        options.socket_or_picture = worker.path();
        options.timeout_ms = limit_ms;
        const held_time time(std::vector<int>(100, step_ms));
        result = run_call(call, options);
        EXPECT_EQ(time.passed_ms(), limit_ms);
    }
    close(memory);
    return result;
}

TEST(TimeLimit, CoversTheWholeCommand)
{
    const temporary_folder folder;
    call_options options;
    options.output = folder.path("out.png");
    options.loops = 1;
    options.no_pace = true;
    options.name = "aspect ratio";
    options.value = "16:9";
    for (const auto call : {call_wait, call_status, call_frame, call_save, call_dump, call_play,
                            call_sheet, call_set, call_quit}) {
        const outcome result = run_against_slow_worker(call, options);
        EXPECT_EQ(result.status, STATUS_TIME_LIMIT) << result.messages;
        EXPECT_TRUE(result.out.empty());
        EXPECT_THAT(result.messages, testing::EndsWith(" (try a longer --timeout)\n"));
    }
}

TEST(TimeLimit, OfWatchAppliesUntilTheFirstDocument)
{
    call_options options;
    options.watch = true;
    EXPECT_EQ(run_against_slow_worker(call_status, options).status, STATUS_TIME_LIMIT);
    options.timeout_ms = limit_ms;
    {
        const held_time time({step_ms, 0, 0, 10 * limit_ms});
        const outcome silent = run_against(
            [](fake_peer& peer) {
                const uint64_t number = peer.next(SUBSCRIBE).request;
                peer.send(encode_empty(number, DONE));
                peer.send(encode(number, status_part{2, 0, "{}"}));
                peer.hang_up();
            },
            call_status, options);
        EXPECT_EQ(silent.status, STATUS_DONE) << silent.messages;
        EXPECT_EQ(silent.out, "{}\n");
        EXPECT_EQ(time.passed_ms(), step_ms + 10 * limit_ms);
    }
    const held_time time({step_ms, 0});
    const outcome without_document = run_against(
        [](fake_peer& peer) {
            peer.send(encode_empty(peer.next(SUBSCRIBE).request, DONE));
            peer.await_end();
        },
        call_status, options);
    EXPECT_EQ(without_document.status, STATUS_TIME_LIMIT);
    EXPECT_EQ(time.passed_ms(), limit_ms);
}

// An exhausted limit must not turn into a request that does not wait.
TEST(TimeLimit, ExhaustedBeforeTheFrameStillRequestsWithWaiting)
{
    std::atomic<int> flags = -1;
    const fake_worker worker([&](fake_peer& peer) {
        peer.greet();
        const bool asked = peer.next(GET_FRAME).type == GET_FRAME;
        flags = asked ? peer.request[packet_header_size + 8] : -2;
        peer.await_end();
    });
    {
        call_options options;
        options.socket_or_picture = worker.path();
        const held_time time({0});
        session opened;
        ASSERT_EQ(opened.open(options), STATUS_DONE);
        opened.limit_to(0);
        held_frame frame;
        testing::internal::CaptureStderr();
        EXPECT_EQ(opened.take_frame(options, &frame), STATUS_TIME_LIMIT);
        testing::internal::GetCapturedStderr();
    }
    while (flags == -1) {
        pause_ms(1);
    }
    EXPECT_EQ(flags, static_cast<int>(get_frame_wait));
}

// --- workers that exist but are busy -------------------------------------------------------------

// A socket whose connection queue is full until make_room() is called.
class busy_listener {
public:
    explicit busy_listener(const std::string& path)
    {
        address_.sun_family = AF_UNIX;
        path.copy(address_.sun_path, sizeof address_.sun_path - 1);
        listener_ = seqpacket_socket();
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address_), sizeof address_), 0);
        EXPECT_EQ(listen(listener_, 0), 0);
        filler_ = seqpacket_socket();
        EXPECT_EQ(connect(filler_, reinterpret_cast<sockaddr*>(&address_), sizeof address_), 0);
    }
    busy_listener(const busy_listener&) = delete;
    busy_listener& operator=(const busy_listener&) = delete;
    ~busy_listener()
    {
        close(filler_);
        close(listener_);
    }

    // Accepts the connection that fills the queue, which makes room for the next one.
    void make_room() const { close(accept(listener_, nullptr, nullptr)); }
    // Accepts the next connection and greets its client.
    void greet_next() const { fake_peer(accept(listener_, nullptr, nullptr)).greet(); }

private:
    static int seqpacket_socket() { return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0); }

    sockaddr_un address_ = {};
    int listener_ = -1;
    int filler_ = -1;
};

call_options options_for(const std::string& socket, int timeout_ms = -1)
{
    call_options options;
    options.socket_or_picture = socket;
    options.timeout_ms = timeout_ms;
    return options;
}

exit_status open_session(const call_options& options)
{
    session opened;
    return opened.open(options);
}

// The result of `call`, which has no time limit, while room is made and the client greeted at
// `busy_ms`.
template <typename Call>
auto against_full_queue(int busy_ms, Call call)
{
    const temporary_folder folder;
    const busy_listener full(folder.path("full"));
    std::thread greeting;
    held_time time({0});
    time.at(busy_ms, [&] {
        full.make_room();
        greeting = std::thread([&] { full.greet_next(); });
    });
    const auto result = call(folder.path("full"));
    EXPECT_GE(time.passed_ms(), busy_ms);
    if (greeting.joinable()) {
        greeting.join();
    }
    return result;
}

constexpr int start_ms = 2000; // how long the tool waits for a socket to appear
constexpr int busy_ms = 10 * start_ms;

TEST(TimeLimit, BusyWorkerIsWaitedForLongerThanAMissingOne)
{
    const fake_worker late([](fake_peer& peer) {
        peer.greet();
        peer.await_end();
    });
    for (const int timeout_ms : {-1, 2 * busy_ms}) {
        const held_time time({busy_ms});
        EXPECT_EQ(open_session(options_for(late.path(), timeout_ms)), STATUS_DONE);
        EXPECT_EQ(time.passed_ms(), busy_ms);
    }
    const auto open_without_limit = [](const std::string& path) {
        return open_session(options_for(path));
    };
    EXPECT_EQ(against_full_queue(busy_ms, open_without_limit), STATUS_DONE);
}

TEST(TimeLimit, MissingWorkerIsWaitedForBriefly)
{
    const temporary_folder folder;
    for (const int timeout_ms : {-1, 2 * busy_ms}) {
        const held_time time({});
        testing::internal::CaptureStderr();
        EXPECT_EQ(open_session(options_for(folder.path("nobody"), timeout_ms)), STATUS_NO_WORKER);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "stillimage-client: cannot connect: no worker serves at " +
                      folder.path("nobody") +
                      ": there is no such socket (nor a picture of that name)\n");
        EXPECT_GE(time.passed_ms(), start_ms);
        EXPECT_LT(time.passed_ms(), 2 * start_ms);
    }
}

TEST(TimeLimit, BusyWorkerIsNotWaitedForBeyondTheLimit)
{
    const temporary_folder folder;
    const fake_worker silent([](fake_peer& peer) { peer.await_end(); });
    const busy_listener full(folder.path("full"));
    testing::internal::CaptureStderr();
    {
        const held_time time({});
        EXPECT_EQ(open_session(options_for(silent.path(), busy_ms)), STATUS_TIME_LIMIT);
        EXPECT_EQ(time.passed_ms(), busy_ms);
    }
    {
        const held_time time({});
        EXPECT_EQ(open_session(options_for(folder.path("full"), busy_ms)), STATUS_TIME_LIMIT);
        EXPECT_EQ(time.passed_ms(), busy_ms);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "stillimage-client: cannot connect: the worker did not answer in time (try a longer "
              "--timeout)\n"
              "stillimage-client: cannot connect: the worker at " +
                  folder.path("full") +
                  " did not take the connection in time (try a longer --timeout)\n");
}

TEST(TimeLimit, OfTheLibraryAppliesToABusyWorker)
{
    const auto open_within = [](const std::string& path, int timeout_ms) {
        return opened(path, timeout_ms).result;
    };
    const temporary_folder folder;
    const busy_listener full(folder.path("full"));
    const fake_worker late([](fake_peer& peer) {
        peer.greet();
        peer.await_end();
    });
    for (const std::string& path : {folder.path("full"), late.path()}) {
        const held_time time({busy_ms});
        EXPECT_EQ(open_within(path, busy_ms - 1), STILLIMAGE_ERROR_TIMEOUT);
        EXPECT_EQ(time.passed_ms(), busy_ms - 1);
    }
    {
        const held_time time({busy_ms});
        EXPECT_EQ(open_within(late.path(), -1), STILLIMAGE_OK);
    }
    const auto open_without_limit = [&](const std::string& path) { return open_within(path, -1); };
    EXPECT_EQ(against_full_queue(busy_ms, open_without_limit), STILLIMAGE_OK);
}

} // namespace
