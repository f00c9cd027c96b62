// `play` against fake workers: what it writes, requests and reports.
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/tool/y4m.h"
#include "tests/unit/client/call_outcome.h"
#include "tests/unit/client/served_picture.h"
#include "wire/scanline_format.h"

namespace {

using namespace comm_protocol;

// Frames and the time at which each one ends, in hundredths of a second.
struct animation {
    void add(const sample_shape& shape, uint64_t delay)
    {
        served_picture served(shape);
        const uint64_t number = frames.size() + 1;
        served.sample.message.frame_number = number;
        served.sample.put(scanline_format::at_frame_number, 8, number);
        served.sample.area[0] = static_cast<unsigned char>(number); // the first pixel
        frames.push_back(served.sample);
        ends.push_back((ends.empty() ? 0 : ends.back()) + delay);
    }
    size_t index_at(uint64_t moment) const
    {
        size_t index = 0;
        while (index + 1 < frames.size() && moment >= ends[index]) {
            ++index;
        }
        return index;
    }
    std::string document() const
    {
        return R"({"item": {"time scale": [100, 1], "time duration": )" +
               std::to_string(ends.back()) + "}}";
    }

    std::vector<frame_sample> frames;
    std::vector<uint64_t> ends;
};

void answer(fake_peer& peer, const packet_header& header, const animation& played)
{
    const std::string document = played.document();
    if (header.type == GET_STATUS) {
        peer.send(encode(header.request,
                         status_part{static_cast<uint32_t>(document.size()), 0, document}));
    } else if (header.type == GET_FRAME) {
        get_frame wanted;
        decode(peer.request.data() + packet_header_size, peer.request.size() - packet_header_size,
               &wanted);
        const frame_sample& frame = played.frames[played.index_at(wanted.time_position)];
        const int memory = sealed_memory(frame.area);
        peer.send_with_descriptor(encode(header.request, frame.message), memory);
        close(memory);
    } else {
        peer.send(encode_empty(header.request, DONE));
    }
}

// Serves the animation. Calls `before` with 1 for the first frame request and so on; disconnects
// when that returns false.
std::function<void(fake_peer&)> serving(const animation& played,
                                        const std::function<bool(int frame)>& before = {})
{
    return [&played, before](fake_peer& peer) {
        int frames = 0;
        for (packet_header header = peer.next(); header.type != 0; header = peer.next()) {
            if (header.type == GET_FRAME && before && !before(++frames)) {
                return;
            }
            answer(peer, header, played);
            if (header.type == SUBSCRIBE) {
                peer.send(encode(header.request, event{0, 100, 1, ""}));
            }
        }
    };
}

call_options unpaced(uint64_t loops, const std::string& frame_rate = "")
{
    call_options options;
    options.loops = loops;
    options.frame_rate = frame_rate;
    options.no_pace = true;
    return options;
}

// The first pixel of each frame in the stream, without the header.
std::string shown(const std::string& stream)
{
    const size_t header = stream.find('\n') + 1;
    const size_t next = stream.find("FRAME\n", header + 1);
    const size_t size = (next == std::string::npos ? stream.size() : next) - header;
    std::string numbers;
    for (size_t at = header; at + size <= stream.size(); at += size) {
        EXPECT_EQ(stream.substr(at, 6), "FRAME\n");
        numbers += static_cast<char>('0' + stream[at + 6]);
    }
    EXPECT_EQ(header + numbers.size() * size, stream.size());
    return numbers;
}

std::string header_of(const std::string& stream)
{
    return stream.substr(0, stream.find('\n') + 1);
}

animation three_frames(const sample_shape& shape = {.full_width = 5, .full_height = 3})
{
    animation played;
    played.add(shape, 50);
    played.add(shape, 10);
    played.add(shape, 20);
    return played;
}

TEST(ClientCallPlay, AnimationFollowsItsTimeline)
{
    const animation played = three_frames();
    const outcome result = run_against(serving(played), call_play, unpaced(1));
    EXPECT_EQ(result.status, STATUS_DONE);
    EXPECT_EQ(result.messages, "");
    EXPECT_EQ(header_of(result.out),
              "YUV4MPEG2 W5 H3 F10:1 Ip A16:15 C420jpeg XCOLORRANGE=LIMITED\n");
    EXPECT_EQ(shown(result.out), "11111233");
}

TEST(ClientCallPlay, EveryFrameEqualsTheSavedPicture)
{
    const animation played = three_frames();
    const outcome result = run_against(serving(played), call_play, unpaced(1, "100/30"));
    std::string expected;
    for (const size_t index : {0U, 0U, 2U}) { // shown at 0, 30 and 60
        served_picture served({.full_width = 5, .full_height = 3});
        served.sample.area[0] = static_cast<unsigned char>(index + 1);
        add_y4m_frame(served.picture, y4m_stream_of(served.picture), &expected);
    }
    EXPECT_EQ(result.out.substr(header_of(result.out).size()), expected);
}

TEST(ClientCallPlay, LoopRepeatsTheAnimation)
{
    const animation played = three_frames();
    EXPECT_EQ(shown(run_against(serving(played), call_play, unpaced(3)).out),
              "111112331111123311111233");
}

TEST(ClientCallPlay, GivenRateKeepsTheSpeed)
{
    const animation played = three_frames();
    const outcome result = run_against(serving(played), call_play, unpaced(1, "4"));
    EXPECT_EQ(header_of(result.out),
              "YUV4MPEG2 W5 H3 F4:1 Ip A16:15 C420jpeg XCOLORRANGE=LIMITED\n");
    EXPECT_EQ(shown(result.out), "1123");
}

TEST(ClientCallPlay, StillIsOneSecondOf25FramesARound)
{
    animation still;
    still.add({.full_width = 5, .full_height = 3}, 10);
    const outcome result = run_against(serving(still), call_play, unpaced(2));
    EXPECT_EQ(header_of(result.out),
              "YUV4MPEG2 W5 H3 F25:1 Ip A16:15 C420jpeg XCOLORRANGE=LIMITED\n");
    EXPECT_EQ(shown(result.out), std::string(50, '1'));
    EXPECT_EQ(shown(run_against(serving(still), call_play, unpaced(1, "3")).out), "111");
}

TEST(ClientCallPlay, FirstFrameAloneMayBeOpaque)
{
    animation played;
    played.add({.full_width = 5, .full_height = 3, .x_shift = 0, .y_shift = 0}, 10);
    played.add({.full_width = 5, .full_height = 3, .x_shift = 0, .y_shift = 0, .alpha = true}, 10);
    const outcome result = run_against(serving(played), call_play, unpaced(1));
    EXPECT_EQ(result.status, STATUS_DONE) << result.messages;
    EXPECT_EQ(header_of(result.out),
              "YUV4MPEG2 W5 H3 F10:1 Ip A16:15 C444alpha XCOLORRANGE=LIMITED\n");
    EXPECT_EQ(shown(result.out), "12");
    const size_t first_end = header_of(result.out).size() + 6 + 4 * 15;
    EXPECT_EQ(result.out.substr(first_end - 15, 15), std::string(15, '\xFF'));
}

TEST(ClientCallPlay, FrameOfAnotherSizeEndsTheStream)
{
    animation played;
    played.add({.full_width = 5, .full_height = 3}, 10);
    played.add({.full_width = 7, .full_height = 3}, 10);
    played.add({.full_width = 5, .full_height = 3}, 10);
    const outcome result = run_against(serving(played), call_play, unpaced(1));
    EXPECT_EQ(result.status, STATUS_FAILED);
    EXPECT_EQ(result.messages,
              "stillimage-client: cannot go on: frame 2 differs from the others in "
              "size or kind\n");
    EXPECT_EQ(shown(result.out), "1");
}

TEST(ClientCallPlay, WorkerThatEndsDuringTheStreamIsExitStatusThree)
{
    const animation played = three_frames();
    // Two frame requests find the length; four go into the stream.
    const outcome result = run_against(serving(played, [](int frame) { return frame <= 6; }),
                                       call_play, unpaced(0, "10"));
    EXPECT_EQ(result.status, STATUS_NO_WORKER);
    EXPECT_EQ(result.messages,
              "stillimage-client: cannot get a frame: the worker has gone (start one: "
              "stillimage --file PICTURE)\n");
    EXPECT_EQ(shown(result.out), "1111");
}

TEST(ClientCallPlay, WorkerThatEndsBeforeTheRateIsKnownIsExitStatusThree)
{
    const animation played = three_frames();
    const outcome result =
        run_against(serving(played, [](int frame) { return frame <= 4; }), call_play, unpaced(1));
    EXPECT_EQ(result.status, STATUS_NO_WORKER);
    EXPECT_EQ(result.messages,
              "stillimage-client: cannot get a frame: the worker has gone (start one: "
              "stillimage --file PICTURE)\n");
    EXPECT_EQ(result.out, "");
}

TEST(ClientCallPlay, PictureThatIsNotReadyInTimeIsExitStatusFour)
{
    call_options options = unpaced(1);
    options.timeout_ms = 100;
    const outcome result =
        run_against([](fake_peer& peer) { peer.await_end(); }, call_play, options);
    EXPECT_EQ(result.status, STATUS_TIME_LIMIT);
    EXPECT_EQ(result.messages, "stillimage-client: cannot wait for the picture: the worker did not "
                               "answer in time (try a longer --timeout)\n");
}

// --- the end of the stream -----------------------------------------------------------------------

// Redirects standard output to `fd` for the lifetime of the object.
class replaced_output {
public:
    explicit replaced_output(int fd) : former_(dup(STDOUT_FILENO))
    {
        fflush(stdout);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    replaced_output(const replaced_output&) = delete;
    replaced_output& operator=(const replaced_output&) = delete;
    ~replaced_output()
    {
        dup2(former_, STDOUT_FILENO);
        close(former_);
    }

private:
    int former_;
};

struct ending {
    exit_status status;
    std::string messages;
};

ending play_into(int fd, const std::function<void(fake_peer&)>& script, call_options options)
{
    const fake_worker worker([&](fake_peer& peer) {
        peer.greet();
        script(peer);
    });
    options.socket_or_picture = worker.path();
    testing::internal::CaptureStderr();
    ending result = {};
    {
        const replaced_output output(fd);
        result.status = call_play(options);
    }
    result.messages = testing::internal::GetCapturedStderr();
    return result;
}

class ClientPlayEnds : public testing::Test {
protected:
    ClientPlayEnds()
    {
        signal(SIGPIPE, SIG_IGN); // as the program does
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
    }
    ~ClientPlayEnds() override { signal(SIGPIPE, SIG_DFL); }

    int ends_[2] = {-1, -1};
};

TEST_F(ClientPlayEnds, SilentlyWhenTheReaderCloses)
{
    const animation played = three_frames();
    close(ends_[0]);
    const ending result = play_into(ends_[1], serving(played), unpaced(0));
    EXPECT_EQ(result.status, STATUS_DONE);
    EXPECT_EQ(result.messages, "");
}

TEST_F(ClientPlayEnds, WithStatusOneWhenWritingFails)
{
    const animation played = three_frames();
    const ending result =
        play_into(open("/dev/full", O_WRONLY | O_CLOEXEC), serving(played), unpaced(0));
    EXPECT_EQ(result.status, STATUS_FAILED);
    EXPECT_EQ(result.messages,
              "stillimage-client: cannot write to standard output: No space left on "
              "device\n");
    close(ends_[0]);
    close(ends_[1]);
}

TEST_F(ClientPlayEnds, AfterTheCurrentFrameOnASignal)
{
    for (const int asked : {SIGINT, SIGTERM}) {
        const temporary_folder folder;
        const animation played = three_frames();
        const pthread_t player = pthread_self();
        const auto script = serving(played, [=](int frame) { // the eighth is in the stream
            return frame != 8 || pthread_kill(player, asked) == 0;
        });
        const ending result =
            play_into(open(folder.write("stream", "").c_str(), O_WRONLY | O_CLOEXEC), script,
                      unpaced(0, "100/9"));
        EXPECT_EQ(result.status, STATUS_DONE);
        EXPECT_EQ(result.messages, "");
        EXPECT_EQ(shown(folder.read("stream")), "11111"); // shown() checks that frames are complete
        // The handler has removed itself and restored the previous action.
        struct sigaction now = {};
        sigaction(asked, nullptr, &now);
        EXPECT_EQ(now.sa_handler, SIG_DFL);
    }
    close(ends_[0]);
    close(ends_[1]);
}

TEST_F(ClientPlayEnds, NotOnAnIgnoredSignal)
{
    const temporary_folder folder;
    const animation played = three_frames();
    const pthread_t player = pthread_self();
    signal(SIGINT, SIG_IGN);
    const auto script = serving(played, [=](int) { return pthread_kill(player, SIGINT) == 0; });
    play_into(open(folder.write("stream", "").c_str(), O_WRONLY | O_CLOEXEC), script,
              unpaced(1, "10"));
    EXPECT_NE(signal(SIGINT, SIG_DFL), SIG_DFL);
    EXPECT_EQ(shown(folder.read("stream")), "11111233");
    close(ends_[0]);
    close(ends_[1]);
}

TEST_F(ClientPlayEnds, OnASignalWhileTheReaderIsStuck)
{
    animation large;
    large.add({.full_width = 600, .full_height = 400}, 10); // more than the pipe can hold
    struct sigaction waking = {};                           // only interrupts system calls
    waking.sa_handler = [](int) {};
    sigaction(SIGUSR1, &waking, nullptr);
    const pthread_t player = pthread_self();
    std::atomic<bool> ended = false;
    std::thread asking([&] {
        int waiting = 0;
        pollfd output = {STDOUT_FILENO, POLLOUT, 0};
        while (waiting == 0 || poll(&output, 1, 0) != 0) { // until the pipe is full
            ioctl(ends_[0], FIONREAD, &waiting);
            usleep(1000);
        }
        pthread_kill(player, SIGINT);
        while (!ended) { // the player may not have been blocked yet
            usleep(20'000);
            pthread_kill(player, SIGUSR1);
        }
    });
    const ending result = play_into(ends_[1], serving(large), unpaced(0));
    ended = true;
    asking.join();
    signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ(result.status, STATUS_DONE);
    EXPECT_EQ(result.messages, "");
    close(ends_[0]);
}

TEST_F(ClientPlayEnds, AtOnceOnATerminal)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    const int inside = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const ending result = play_into(
        inside, [](fake_peer&) {}, unpaced(1));
    EXPECT_EQ(result.status, STATUS_FAILED);
    EXPECT_EQ(result.messages,
              "stillimage-client: a picture is no text for a terminal (name a file, or "
              "send the output on)\n");
    close(terminal);
    close(ends_[0]);
    close(ends_[1]);
}

} // namespace
