// Timing: stills at a frame rate, animations with their own times, loops, seeks, ends.
#include <atomic>
#include <gst/check/gsttestclock.h>
#include <string>
#include <vector>

#include "tests/gst/gst_fixture.h"
#include "tests/support/gif_writer.h"

namespace {

struct shown {
    guint64 frame; // counted from 0
    guint64 start_ms;
    guint64 length_ms;

    bool operator==(const shown&) const = default;
};

void PrintTo(const shown& what, std::ostream* out)
{
    *out << what.frame << " at " << what.start_ms << " for " << what.length_ms;
}

shown shown_by(GstBuffer* buffer)
{
    return {GST_BUFFER_OFFSET(buffer), GST_BUFFER_PTS(buffer) / GST_MSECOND,
            GST_BUFFER_DURATION(buffer) / GST_MSECOND};
}

void count_buffer(GstElement* /*sink*/, GstBuffer* /*buffer*/, GstPad* /*pad*/, gpointer arrived)
{
    ++*static_cast<std::atomic<unsigned>*>(arrived);
}

class GstPlaying : public GstFixture {
protected:
    // An animation of one-colour frames with these delays in hundredths of a second.
    std::string animation(const std::vector<unsigned>& delays)
    {
        gif_spec spec = {.width = 4, .height = 4};
        spec.palette = {{0, 0, 0}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
        for (size_t i = 0; i < delays.size(); ++i) {
            const auto index = static_cast<unsigned char>(i % 4);
            spec.frames.push_back(uniform_gif_frame(4, 4, index, delays[i]));
        }
        return picture_of("animation.gif", write_gif(spec));
    }

    void serve(const std::string& picture)
    {
        served = std::make_unique<worker>(home, picture);
        socket = "socket=" + served->socket();
    }

    static std::vector<shown> all_of(const source_harness& source)
    {
        std::vector<shown> result;
        for (const held_buffer& buffer : source.pull_all()) {
            result.push_back(shown_by(buffer.get()));
        }
        return result;
    }

    std::unique_ptr<worker> served;
    std::string socket;
};

// --- stills --------------------------------------------------------------------------------------

TEST_F(GstPlaying, StillIsRepeatedAtTwentyFiveFramesASecond)
{
    serve(data("jpeg/peacock-420.jpg"));
    const source_harness source(socket + " num-buffers=3");
    EXPECT_EQ(all_of(source), (std::vector<shown>{{0, 0, 40}, {0, 40, 40}, {0, 80, 40}}));
    EXPECT_EQ(source.caps_field("framerate"), "25/1");
}

TEST_F(GstPlaying, StillUsesTheRateThatDownstreamRequests)
{
    serve(data("jpeg/peacock-420.jpg"));
    const source_harness source(socket + " num-buffers=4",
                                {.caps = "video/x-raw,framerate=30000/1001"});
    const std::vector<held_buffer> buffers = source.pull_all();
    ASSERT_EQ(buffers.size(), 4U);
    for (size_t i = 0; i < buffers.size(); ++i) {
        EXPECT_EQ(GST_BUFFER_PTS(buffers[i].get()), i * 1001 * GST_SECOND / 30000);
        EXPECT_EQ(GST_BUFFER_PTS(buffers[i].get()) + GST_BUFFER_DURATION(buffers[i].get()),
                  (i + 1) * 1001 * GST_SECOND / 30000);
    }
}

TEST_F(GstPlaying, StillWithoutARateIsOneBuffer)
{
    serve(data("jpeg/peacock-420.jpg"));
    const source_harness source(socket, {.caps = "video/x-raw,framerate=0/1"});
    const std::vector<held_buffer> buffers = source.pull_all();
    ASSERT_EQ(buffers.size(), 1U);
    EXPECT_EQ(GST_BUFFER_PTS(buffers[0].get()), 0U);
    EXPECT_FALSE(GST_BUFFER_DURATION_IS_VALID(buffers[0].get()));
}

TEST_F(GstPlaying, SeekInAStillStartsAtTheNextFrame)
{
    serve(data("jpeg/peacock-420.jpg"));
    const source_harness source(socket, {.waits = false});
    EXPECT_TRUE(GST_BUFFER_IS_DISCONT(source.pull().get()));
    ASSERT_TRUE(source.seek(10 * GST_SECOND, 10 * GST_SECOND + 80 * GST_MSECOND));
    std::vector<shown> after;
    bool restarted = false;
    for (const held_buffer& buffer : source.pull_all()) {
        restarted = restarted || GST_BUFFER_IS_DISCONT(buffer.get());
        if (restarted) {
            after.push_back(shown_by(buffer.get()));
        }
    }
    EXPECT_EQ(after, (std::vector<shown>{{0, 10'000, 40}, {0, 10'040, 40}}));
}

// --- animations ----------------------------------------------------------------------------------

TEST_F(GstPlaying, AnimationHasItsOwnTimesAndEnds)
{
    serve(animation({10, 3, 50, 7}));
    const source_harness source(socket);
    const std::vector<shown> once = {{0, 0, 100}, {1, 100, 30}, {2, 130, 500}, {3, 630, 70}};
    EXPECT_EQ(all_of(source), once);
    EXPECT_EQ(source.caps_field("framerate"), "0/1");
    gint64 duration = 0;
    EXPECT_TRUE(gst_element_query_duration(source.element(), GST_FORMAT_TIME, &duration));
    EXPECT_EQ(duration, 700 * GST_MSECOND);
}

TEST_F(GstPlaying, LoopsContinueTheTimeline)
{
    serve(animation({10, 5}));
    const source_harness source(socket + " loops=3");
    EXPECT_EQ(
        all_of(source),
        (std::vector<shown>{
            {0, 0, 100}, {1, 100, 50}, {0, 150, 100}, {1, 250, 50}, {0, 300, 100}, {1, 400, 50}}));
    gint64 duration = 0;
    EXPECT_TRUE(gst_element_query_duration(source.element(), GST_FORMAT_TIME, &duration));
    EXPECT_EQ(duration, 450 * GST_MSECOND);
}

TEST_F(GstPlaying, EndlessLoopsContinue)
{
    serve(animation({10, 5}));
    const source_harness source(socket + " loops=-1 num-buffers=101");
    const std::vector<shown> all = all_of(source);
    ASSERT_EQ(all.size(), 101U);
    EXPECT_EQ(all.back(), (shown{0, 7500, 100}));
    gint64 duration = 0;
    gst_element_query_duration(source.element(), GST_FORMAT_TIME, &duration);
    EXPECT_EQ(duration, -1);
}

TEST_F(GstPlaying, AnimationAtAFixedRateShowsTheCurrentFrame)
{
    serve(animation({10, 3, 7}));
    const source_harness source(socket + " loops=2", {.caps = "video/x-raw,framerate=20/1"});
    EXPECT_EQ(all_of(source), (std::vector<shown>{{0, 0, 50},
                                                  {0, 50, 50},
                                                  {1, 100, 50},
                                                  {2, 150, 50},
                                                  {0, 200, 50},
                                                  {0, 250, 50},
                                                  {1, 300, 50},
                                                  {2, 350, 50}}));
}

// When only the first frame is opaque, the worker drops the alpha plane of that frame only.
TEST_F(GstPlaying, FrameWithoutAlphaIsOpaqueWhereOthersHaveAlpha)
{
    serve(animation({10, 3}));
    const source_harness source(socket);
    const std::vector<held_buffer> buffers = source.pull_all();
    const GstVideoInfo info = source.info();
    ASSERT_EQ(buffers.size(), 2U);
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), GST_VIDEO_FORMAT_AYUV);
    const held_client client = connect_to(served->socket());
    const held_frame first = take_frame(client);
    ASSERT_EQ(stillimage_frame_picture(first.get())->plane[STILLIMAGE_A], nullptr);
    for (const held_buffer& buffer : buffers) {
        GstMapInfo map;
        ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READ));
        EXPECT_EQ(map.data[0], 255);
        gst_buffer_unmap(buffer.get(), &map);
    }
}

TEST_F(GstPlaying, PlanesOfEveryFrameEqualThoseOfTheWorker)
{
    serve(animation({10, 3, 50, 7}));
    const source_harness source(socket);
    const std::vector<held_buffer> buffers = source.pull_all();
    const held_client client = connect_to(served->socket());
    ASSERT_EQ(buffers.size(), 4U);
    for (const held_buffer& buffer : buffers) {
        const held_frame frame =
            take_frame(client, GST_BUFFER_PTS(buffer.get()) / (10 * GST_MSECOND));
        ASSERT_NE(frame, nullptr);
        expect_same_planes(buffer.get(), source.info(), *stillimage_frame_picture(frame.get()));
    }
}

TEST_F(GstPlaying, SeekLandsInsideAFrame)
{
    serve(animation({10, 30, 20}));
    const source_harness source(socket + " loops=2", {.waits = false});
    EXPECT_EQ(all_of(source).size(), 6U);
    ASSERT_TRUE(source.seek(250 * GST_MSECOND));
    EXPECT_EQ(all_of(source),
              (std::vector<shown>{
                  {1, 250, 150}, {2, 400, 200}, {0, 600, 100}, {1, 700, 300}, {2, 1000, 200}}));
}

TEST_F(GstPlaying, BackwardPlaybackIsRefused)
{
    serve(animation({10, 30}));
    const source_harness source(socket, {.waits = false});
    ASSERT_NE(source.pull(), nullptr);
    EXPECT_FALSE(source.seek(0, 100, -1.0));
}

// A client can hold at most 1,024 frames of a worker at a time.
TEST_F(GstPlaying, FramesAreReleasedWithTheirBuffers)
{
    serve(animation({1, 2, 3}));
    const source_harness source(socket + " loops=-1");
    for (int i = 0; i < 3000; ++i) {
        const held_buffer buffer = source.pull();
        ASSERT_NE(buffer, nullptr);
        ASSERT_EQ(GST_BUFFER_OFFSET(buffer.get()), static_cast<guint64>(i % 3));
    }
}

TEST_F(GstPlaying, LiveSourceFollowsTheClock)
{
    serve(data("jpeg/peacock-420.jpg"));
    std::atomic<unsigned> arrived = 0; // incremented while the pipeline exists
    const pipeline played("stillimagesrc is-live=true num-buffers=10 " + socket +
                          " ! video/x-raw,framerate=50/1 ! "
                          "fakesink name=to signal-handoffs=true sync=false");
    const auto sink = played.find("to");
    g_signal_connect(sink.get(), "handoff", G_CALLBACK(count_buffer), &arrived);
    const held_object<GstClock> clock(gst_test_clock_new_with_start_time(GST_SECOND));
    auto* held = GST_TEST_CLOCK(clock.get());
    played.use_clock(clock.get());
    EXPECT_EQ(played.set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
    played.set_state(GST_STATE_PLAYING);
    for (unsigned frame = 0; frame < 10; ++frame) {
        ASSERT_TRUE(gst_test_clock_timed_wait_for_multiple_pending_ids(held, 1, 60'000, nullptr));
        EXPECT_EQ(gst_test_clock_get_next_entry_time(held), GST_SECOND + frame * 20 * GST_MSECOND);
        EXPECT_EQ(arrived, frame);
        ASSERT_TRUE(gst_test_clock_crank(held));
    }
    EXPECT_EQ(played.run(), "");
    EXPECT_EQ(arrived, 10U);
}

} // namespace
