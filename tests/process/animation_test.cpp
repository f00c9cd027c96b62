// Animations through the real worker and the real client library: the frame at each time position,
// the reported duration, very many frames.
#include <csignal>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/file_contents.h"
#include "tests/support/gif_reference.h"
#include "tests/support/gif_writer.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::vector<gif_colour> four_colours = {{0, 0, 0}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}};

class Animation : public testing::Test {
protected:
    std::string write(const gif_spec& spec) { return write(write_gif(spec)); }

    std::string write(const std::vector<unsigned char>& file)
    {
        home.folder().write("picture.gif",
                            {reinterpret_cast<const char*>(file.data()), file.size()});
        return home.path("picture.gif");
    }

    // Frames of `width` x `height`, each in one of four colours in turn and shown for 1/10 s.
    std::string write_frames(unsigned width, unsigned height, size_t frames)
    {
        gif_spec spec = {.width = width, .height = height, .palette = four_colours};
        std::vector<unsigned char> file = gif_start(spec);
        for (size_t i = 0; i < frames; ++i) {
            append_gif_frame(
                file, uniform_gif_frame(width, height, static_cast<unsigned char>(i % 4), 10));
        }
        file.push_back(0x3B);
        return write(file);
    }

    std::string status() const
    {
        std::string document;
        EXPECT_EQ(run_client(home, {socket_path, "status"}, &document), 0);
        return document;
    }

    worker_home home;
    std::string socket_path;
};

TEST_F(Animation, EachTimePositionHasItsFrame)
{
    const worker served(
        home, write({.width = 80,
                     .height = 60,
                     .palette = four_colours,
                     .frames = {uniform_gif_frame(80, 60, 1, 50), uniform_gif_frame(80, 60, 2, 0),
                                uniform_gif_frame(80, 60, 3, 20)}}));
    const held_client client = connect_to(served.socket());
    const struct {
        uint64_t time;
        uint64_t frame;
        unsigned char luma;
    } moments[] = {
        {0, 1, 81},         {49, 1, 81},        {50, 2, 144}, {59, 2, 144},
        {60, 3, 40},        {79, 3, 40},        {80, 3, 40}, // past the end: the last frame
        {1'000'000, 3, 40}, {UINT64_MAX, 3, 40}};
    for (const auto& moment : moments) {
        for (const int size : {0, 40}) {
            const held_frame frame = take_frame(client, moment.time, size, size);
            ASSERT_NE(frame, nullptr) << served.printed();
            const stillimage_picture* seen = stillimage_frame_picture(frame.get());
            EXPECT_EQ(seen->frame_number, moment.frame) << moment.time;
            EXPECT_EQ(seen->width, size == 0 ? 80U : 40U);
            EXPECT_EQ(seen->plane[STILLIMAGE_Y][0], moment.luma) << moment.time;
        }
    }
}

TEST_F(Animation, StoredAnimationReachesTheClientFrameByFrame)
{
    const std::string path = STILLIMAGE_TEST_DATA "/gif/mixed-disposal.gif";
    const gif_reference::animation what = gif_reference::read(read_test_file(path));
    const auto shown = gif_reference::compose(what);
    const worker served(home, path);
    const held_client client = connect_to(served.socket());
    for (const auto& [time, index] : gif_reference::timeline(what)) {
        const held_frame frame = take_frame(client, time);
        ASSERT_NE(frame, nullptr) << served.printed();
        const stillimage_picture* seen = stillimage_frame_picture(frame.get());
        EXPECT_EQ(seen->frame_number, index + 1);
        for (unsigned y = 0; y < what.height; ++y) {
            for (unsigned x = 0; x < what.width; ++x) {
                const gif_reference::colour c = shown[index][size_t{y} * what.width + x];
                const int luma = (66 * c.r + 129 * c.g + 25 * c.b + 4096) >> 8;
                ASSERT_EQ(seen->plane[STILLIMAGE_Y][y * seen->stride[STILLIMAGE_Y] + x], luma);
                ASSERT_EQ(seen->plane[STILLIMAGE_A][y * seen->stride[STILLIMAGE_A] + x], c.a);
            }
        }
    }
}

TEST_F(Animation, DurationIsReportedBeforeDuringAndAfterDecoding)
{
    const worker served(home, write_frames(1, 1, 100), {"--slow-decode"});
    socket_path = served.socket();
    const held_client early = connect_to(socket_path); // decoding takes at least a second
    stillimage_frame* frame = nullptr;
    EXPECT_EQ(stillimage_get_frame(early.get(), 0, 0, 0, 0, &frame), STILLIMAGE_ERROR_NOT_READY);
    EXPECT_THAT(status(), HasSubstr("\"time duration\": 1000,"));
    const held_frame last = take_frame(early, 999);
    EXPECT_EQ(stillimage_frame_picture(last.get())->frame_number, 100U);
    EXPECT_THAT(status(), HasSubstr("\"time duration\": 1000,"));
}

TEST_F(Animation, VeryManyFramesOfOnePixel)
{
#ifdef __SANITIZE_ADDRESS__
    constexpr size_t frames = 5'000;
#else
    constexpr size_t frames = 50'000;
#endif
    worker served(home, write_frames(1, 1, frames));
    ASSERT_TRUE(served.wait_ready(100'000));
    const held_client client = connect_to(served.socket());
    for (const size_t i : {size_t{0}, frames / 2 + 1, frames - 1}) {
        const held_frame frame = take_frame(client, i * 10);
        ASSERT_NE(frame, nullptr) << served.printed();
        EXPECT_EQ(stillimage_frame_picture(frame.get())->frame_number, i + 1);
        const unsigned char luma[] = {16, 81, 144, 40};
        EXPECT_EQ(stillimage_frame_picture(frame.get())->plane[STILLIMAGE_Y][0], luma[i % 4]);
    }
    EXPECT_THAT(served.printed(), Not(HasSubstr("WARNING")));
}

TEST_F(Animation, SignalEndsTheDecodingOfAnAnimation)
{
    worker served(home, write_frames(8, 8, 10'000),
                  {"--slow-decode"}); // decoding takes at least 100 s
    ASSERT_TRUE(served.wait_printed("Using CNB buffer"));
    pause_ms(50);
    served.send(SIGTERM);
    EXPECT_EQ(served.wait_end(30'000), 0);
    EXPECT_THAT(served.printed(), Not(HasSubstr("WARNING")));
    EXPECT_TRUE(home.sockets().empty());
}

// Each frame is far larger than the screen: reading it takes a second and a few megabytes of
// memory.
TEST_F(Animation, SignalEndsTheExaminationOfAnAnimation)
{
    const gif_frame_spec giant = {.width = 20'000, .height = 20'000, .all_zero = true};
    const std::string picture =
        write(write_gif({.width = 4, .height = 4, .frames = {giant, giant, giant, giant}}));
    for (const std::string mode : {"--no-autoshutdown", "--identify-only", "--create-meta"}) {
        SCOPED_TRACE(mode);
        worker served(home, {{"--file", picture, "--metadir", home.path("meta"), mode}});
        ASSERT_TRUE(served.wait_printed("* Identified file"));
        served.send(SIGTERM);
        EXPECT_EQ(served.wait_end(), mode == "--no-autoshutdown" ? 0 : 1);
        EXPECT_THAT(served.printed(), EndsWith("\nGIF examination failed\n"));
        EXPECT_THAT(served.printed(), Not(HasSubstr("GIF: Screen")));
        EXPECT_NE(access(home.path("meta/metadata").c_str(), F_OK), 0);
        EXPECT_TRUE(home.sockets().empty());
    }
}

TEST_F(Animation, FramesThatNoBufferCanHoldTakeNoMemory)
{
    // Four times 16 MB of indices. None is kept, because the planes of one frame take 64 MB.
    const gif_frame_spec large = {.width = 4'000, .height = 4'000, .all_zero = true};
    const std::string picture =
        write(write_gif({.width = 4'000, .height = 4'000, .frames = {large, large, large, large}}));
    worker::setting how = {{"--file", picture, "--oneshot", "--domain-limit", "60M"}};
    how.address_space = address_space_of(60);
    const ended_worker ended = run_worker(home, how);
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, HasSubstr("ImageCount=4\n"));
    EXPECT_THAT(ended.printed, Not(HasSubstr("GIF reading error")));
    EXPECT_THAT(ended.printed, EndsWith("CNB allocation failed\n"));
}

TEST_F(Animation, TruncatedAnimationIsServedUpToTheCut)
{
    std::vector<unsigned char> file =
        write_gif({.width = 4,
                   .height = 4,
                   .palette = four_colours,
                   .frames = {uniform_gif_frame(4, 4, 1, 30), uniform_gif_frame(4, 4, 2, 30)}});
    file.resize(file.size() - 8);
    const worker served(home, write(file));
    const held_client client = connect_to(served.socket());
    const held_frame frame = take_frame(client, 30);
    ASSERT_NE(frame, nullptr) << served.printed();
    EXPECT_EQ(stillimage_frame_picture(frame.get())->frame_number, 2U);
    EXPECT_EQ(stillimage_frame_picture(frame.get())->plane[STILLIMAGE_Y][0],
              16); // was not read: palette entry 0
    EXPECT_THAT(served.printed(), HasSubstr("GIF reading error (?)\n"));
}

} // namespace
