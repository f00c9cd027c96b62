// Workers that take their time: how long the tool waits for them, and the library under it.
#include <atomic>
#include <chrono>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/tool/session.h"
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
constexpr int step_ms = 80; // two of them are too many

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

// Each answer alone is well within the limit.
outcome run_against_slow_worker_once(exit_status (*call)(const call_options&), call_options options)
{
    const frame_sample sample;
    const int memory = sealed_memory(sample.area);
    outcome result;
    {
        const fake_worker worker([&](fake_peer& peer) {
            pause_ms(step_ms);
            peer.greet();
            for (packet_header header = peer.next(); header.type != 0; header = peer.next()) {
                pause_ms(step_ms);
                answer(peer, header, sample, memory);
            }
        });
        options.socket_or_picture = worker.path();
        options.timeout_ms = limit_ms;
        result = run_call(call, options);
    }
    close(memory);
    return result;
}

// An answer that is there when the tool looks is taken, however late it is. So on a busy machine a
// tool that was not given the processor may see nothing of the limit, but not time and again.
outcome run_against_slow_worker(exit_status (*call)(const call_options&),
                                const call_options& options)
{
    outcome result;
    for (int i = 0; i < 5 && result.status != STATUS_TIME_LIMIT; ++i) {
        result = run_against_slow_worker_once(call, options);
    }
    return result;
}

TEST(TimeLimit, IsThatOfTheWholeCommand)
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
        EXPECT_EQ(result.status, STATUS_TIME_LIMIT) << result.told;
        EXPECT_TRUE(result.out.empty());
        EXPECT_THAT(result.told, testing::EndsWith(" (try a longer --timeout)\n"));
    }
}

TEST(TimeLimit, OfAWatchIsUntilTheFirstDocument)
{
    call_options options;
    options.watch = true;
    EXPECT_EQ(run_against_slow_worker(call_status, options).status, STATUS_TIME_LIMIT);
    options.timeout_ms = 10'000;
    const outcome silent = run_against(
        [](fake_peer& peer) {
            const uint64_t number = peer.next(SUBSCRIBE).request;
            peer.send(encode_empty(number, DONE));
            peer.send(encode(number, status_part{2, 0, "{}"}));
            peer.hang_up();
        },
        call_status, options);
    EXPECT_EQ(silent.status, STATUS_DONE) << silent.told;
    EXPECT_EQ(silent.out, "{}\n");
    options.timeout_ms = silence_ms;
    const outcome without_document = run_against(
        [](fake_peer& peer) {
            peer.send(encode_empty(peer.next(SUBSCRIBE).request, DONE));
            peer.await_end();
        },
        call_status, options);
    EXPECT_EQ(without_document.status, STATUS_TIME_LIMIT);
}

// The limit that is used up does not turn into the wish not to wait.
TEST(TimeLimit, PassedBeforeTheFrameIsNoRequestWithoutPatience)
{
    std::atomic<int> flags = -1;
    const fake_worker worker([&](fake_peer& peer) {
        peer.greet();
        if (peer.next(GET_FRAME).type == GET_FRAME) {
            flags = peer.request[packet_header_size + 8];
        }
        peer.await_end();
    });
    {
        call_options options;
        options.socket_or_picture = worker.path();
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

// --- workers that are there but busy ---------------------------------------------------------------

// A socket whose queue of connections is full until it is served.
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

    // Takes the connection that fills the queue, and greets the next one.
    void serve() const
    {
        close(accept(listener_, nullptr, nullptr));
        fake_peer(accept(listener_, nullptr, nullptr)).greet();
    }

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

// All at once, since each takes more than the two seconds in which a worker has to be there.
TEST(TimeLimit, BusyWorkerIsWaitedForLongerThanOneThatIsNotThere)
{
    constexpr int busy_ms = 2300;
    const temporary_folder folder;
    const auto greets_late = [](fake_peer& peer) {
        pause_ms(busy_ms);
        peer.greet();
        peer.await_end();
    };
    const fake_worker late(greets_late);
    const fake_worker late_within_limit(greets_late);
    const busy_listener full(folder.path("full"));
    exit_status statuses[4] = {STATUS_FAILED, STATUS_FAILED, STATUS_FAILED, STATUS_FAILED};
    const call_options options[] = {
        options_for(late.path()), options_for(late_within_limit.path(), 60'000),
        options_for(folder.path("full")), options_for(folder.path("nobody"))};
    testing::internal::CaptureStderr();
    std::vector<std::thread> threads;
    for (size_t i = 0; i < std::size(options); ++i) {
        threads.emplace_back([&, i] { statuses[i] = open_session(options[i]); });
    }
    pause_ms(busy_ms);
    full.serve();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "stillimage-client: cannot connect: no worker serves at " + folder.path("nobody") +
                  ": there is no such socket (nor a picture of that name)\n");
    EXPECT_EQ(statuses[0], STATUS_DONE);
    EXPECT_EQ(statuses[1], STATUS_DONE);
    EXPECT_EQ(statuses[2], STATUS_DONE);
    EXPECT_EQ(statuses[3], STATUS_NO_WORKER);
}

TEST(TimeLimit, BusyWorkerIsNotWaitedForBeyondTheLimit)
{
    const temporary_folder folder;
    const fake_worker silent([](fake_peer& peer) { peer.await_end(); });
    const busy_listener full(folder.path("full"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(open_session(options_for(silent.path(), silence_ms)), STATUS_TIME_LIMIT);
    EXPECT_EQ(open_session(options_for(folder.path("full"), silence_ms)), STATUS_TIME_LIMIT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "stillimage-client: cannot connect: the worker did not answer in time (try a longer "
              "--timeout)\n"
              "stillimage-client: cannot connect: the worker at " +
                  folder.path("full") +
                  " did not take the connection in time (try a longer --timeout)\n");
}

TEST(TimeLimit, OfTheLibraryRulesOnceAWorkerIsThere)
{
    const temporary_folder folder;
    const busy_listener full(folder.path("full"));
    EXPECT_EQ(opened(folder.path("full"), silence_ms).result, STILLIMAGE_ERROR_TIMEOUT);
    std::thread server([&] {
        pause_ms(2 * silence_ms);
        full.serve();
    });
    EXPECT_EQ(opened(folder.path("full"), -1).result, STILLIMAGE_OK);
    server.join();
    int connections = 0;
    const fake_worker late([&connections](fake_peer& peer) {
        if (++connections > 1) {
            pause_ms(2 * silence_ms);
            peer.greet();
        }
        peer.await_end();
    });
    EXPECT_EQ(opened(late.path(), silence_ms).result, STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(opened(late.path(), -1).result, STILLIMAGE_OK);
}

} // namespace
