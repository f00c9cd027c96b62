// Workers that are missing, cannot be started, or end; repeated state changes.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>

#include <gmock/gmock.h>

#include "tests/gst/gst_fixture.h"
#include "tests/support/signals.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class GstAdversity : public GstFixture {
protected:
    // The process that serves the picture at its default socket; waits for one that is started.
    static pid_t worker_of(const std::string& picture)
    {
        pid_t pid = 0;
        EXPECT_TRUE(eventually([&] {
            stillimage_client* client = nullptr;
            if (stillimage_connect_picture(picture.c_str(), 0, 30'000, &client) == STILLIMAGE_OK) {
                pid = stillimage_worker_pid(client);
            }
            stillimage_close(client);
            return pid > 0;
        }));
        return pid;
    }
    static void end_process(pid_t pid)
    {
        send_signal(pid, SIGKILL);
        EXPECT_TRUE(eventually([&] { return kill(pid, 0) != 0 && errno == ESRCH; }));
    }
    static size_t own_descriptors()
    {
        const std::filesystem::directory_iterator folder("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(folder), end(folder)));
    }
};

std::string error_of(const std::string& properties)
{
    return pipeline("stillimagesrc " + properties + " ! fakesink").run();
}

// The time of the last buffer that the sink received; 0 before the first.
GstClockTime time_shown(GstElement* sink)
{
    GstSample* sample = nullptr;
    g_object_get(sink, "last-sample", &sample, nullptr);
    const GstClockTime time = sample != nullptr ? GST_BUFFER_PTS(gst_sample_get_buffer(sample)) : 0;
    if (sample != nullptr) {
        gst_sample_unref(sample);
    }
    return time;
}

// --- opening -------------------------------------------------------------------------------------

TEST_F(GstAdversity, WorkerIsStartedForALocation)
{
    const std::string picture = copy_of("jpeg/peacock-420.jpg");
    EXPECT_EQ(error_of("num-buffers=2 location=" + picture), "");
    EXPECT_GT(worker_of(picture), 0);
}

TEST_F(GstAdversity, NothingToOpenIsAnError)
{
    EXPECT_EQ(error_of(""), "No picture to open: set \"location\" or \"socket\"");
}

TEST_F(GstAdversity, MissingFileIsReportedWithItsReason)
{
    EXPECT_EQ(error_of("location=/missing/picture.png"),
              "Cannot open \"/missing/picture.png\": No such file or directory");
}

TEST_F(GstAdversity, WorkerThatCannotBeStartedIsReported)
{
    environment.set("STILLIMAGE_PROGRAM", "/missing/program");
    const std::string picture = copy_of("jpeg/peacock-420.jpg");
    EXPECT_EQ(error_of("location=" + picture),
              "Cannot open \"" + picture +
                  "\": cannot start '/missing/program': No such file or directory");
}

TEST_F(GstAdversity, WithoutStartWorkerNoWorkerServes)
{
    const std::string picture = copy_of("jpeg/peacock-420.jpg");
    EXPECT_THAT(error_of("start-worker=false timeout=100 location=" + picture),
                AllOf(StartsWith("Cannot open \"" + picture + "\": no worker serves at "),
                      HasSubstr("there is no such socket")));
    EXPECT_THAT(error_of("timeout=100 socket=/missing/socket"),
                StartsWith("Cannot open \"/missing/socket\": no worker serves at /missing/socket"));
}

TEST_F(GstAdversity, FileThatIsNoPictureIsReported)
{
    const std::string text = home.folder().write("text.png", "no picture");
    EXPECT_EQ(error_of("location=" + text), "Cannot open \"" + text +
                                                "\": the worker does not serve " + text +
                                                ": it is no picture of a known type");
}

TEST_F(GstAdversity, SizeThatNoLevelHasIsReportedWithAWayOut)
{
    const worker served(home, data("jpeg/harvesters-420.jpg"));
    const pipeline played("stillimagesrc socket=" + served.socket() +
                          " ! video/x-raw,width=640 ! fakesink");
    EXPECT_EQ(played.run(), "The next element takes none of the picture's sizes and formats; put "
                            "videoscale and videoconvert between");
}

// --- the worker ends -----------------------------------------------------------------------------

TEST_F(GstAdversity, AnotherWorkerIsStartedDuringTheStream)
{
    const std::string picture = copy_of("gif/varying-delays.gif");
    const pipeline played("stillimagesrc loops=-1 is-live=true location=" + picture +
                          " ! fakesink name=sink sync=false");
    played.set_state(GST_STATE_PLAYING);
    const auto sink = played.find("sink");
    const auto shown = [&] { return time_shown(sink.get()); };
    ASSERT_TRUE(eventually([&] { return shown() > 0; }));
    const pid_t first = worker_of(picture);
    end_process(first);
    const held_message warning = played.wait(GST_MESSAGE_WARNING | GST_MESSAGE_ERROR);
    ASSERT_NE(warning, nullptr);
    EXPECT_EQ(text_of_error(warning.get()),
              "The worker of \"" + picture + "\" has gone, looking for another one");
    const held_message back = played.wait(GST_MESSAGE_INFO | GST_MESSAGE_ERROR);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(text_of_error(back.get()), "Another worker serves \"" + picture + "\"");
    EXPECT_NE(worker_of(picture), first);
    const GstClockTime then = shown();
    EXPECT_TRUE(eventually([&] { return shown() > then; }));
    EXPECT_EQ(played.wait(GST_MESSAGE_ERROR, 0), nullptr);
}

// The element requests frames all the time, so most workers are killed during a request.
TEST_F(GstAdversity, StreamSurvivesWorkersKilledAtAnyMoment)
{
    const std::string picture = copy_of("gif/varying-delays.gif");
    const pipeline played("stillimagesrc loops=-1 location=" + picture +
                          " ! fakesink name=sink sync=false");
    played.set_state(GST_STATE_PLAYING);
    const auto sink = played.find("sink");
    const auto error_text = [&played] {
        const held_message error = played.wait(GST_MESSAGE_ERROR, 0);
        return error != nullptr ? text_of_error(error.get()) : "no error";
    };
    for (int i = 0; i < 12; ++i) {
        const GstClockTime then = time_shown(sink.get());
        ASSERT_TRUE(eventually([&] { return time_shown(sink.get()) > then; })) << error_text();
        send_signal(worker_of(picture), SIGKILL);
    }
    EXPECT_EQ(played.wait(GST_MESSAGE_ERROR, 0), nullptr);
}

TEST_F(GstAdversity, MissingWorkerEndsTheStreamInTime)
{
    auto served = std::make_unique<worker>(home, data("jpeg/peacock-420.jpg"));
    ASSERT_TRUE(served->wait_ready());
    const std::string socket = served->socket();
    const pipeline played("stillimagesrc is-live=true timeout=1500 socket=" + socket +
                          " ! fakesink sync=false");
    played.set_state(GST_STATE_PLAYING);
    ASSERT_NE(played.wait(GST_MESSAGE_STREAM_START | GST_MESSAGE_ERROR), nullptr);
    served.reset();
    const held_message error = played.wait(GST_MESSAGE_ERROR);
    ASSERT_NE(error, nullptr);
    EXPECT_THAT(text_of_error(error.get()), StartsWith("Cannot "));
    EXPECT_THAT(text_of_error(error.get()), HasSubstr("\"" + socket + "\": "));
}

TEST_F(GstAdversity, WaitingForAFrozenWorkerCanBeInterrupted)
{
    const worker served(home, data("jpeg/peacock-420.jpg"));
    ASSERT_TRUE(served.wait_ready());
    // The element's time limit is longer than that of the test.
    const pipeline played("stillimagesrc is-live=true timeout=600000 socket=" + served.socket() +
                          " ! fakesink sync=false");
    ASSERT_NE(played.set_state(GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    ASSERT_NE(played.set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    served.send(SIGSTOP);
    played.set_state(GST_STATE_PLAYING);
    pause_ms(300);
    played.set_state(GST_STATE_NULL);
    served.send(SIGCONT);
}

// --- states --------------------------------------------------------------------------------------

TEST_F(GstAdversity, TwentyStateChangesLeakNothing)
{
    const worker served(home, data("jpeg/peacock-420.jpg"), worker::may_be_inspected);
    ASSERT_TRUE(served.wait_ready());
    const pipeline played("stillimagesrc socket=" + served.socket() + " ! fakesink");
    size_t descriptors = 0;
    size_t at_the_worker = 0;
    for (int i = 0; i < 20; ++i) {
        played.set_state(i % 2 == 0 ? GST_STATE_PLAYING : GST_STATE_PAUSED);
        ASSERT_EQ(gst_element_get_state(played.get(), nullptr, nullptr, 30 * GST_SECOND),
                  GST_STATE_CHANGE_SUCCESS);
        ASSERT_EQ(played.set_state(i % 3 == 0 ? GST_STATE_READY : GST_STATE_NULL),
                  GST_STATE_CHANGE_SUCCESS);
        if (i == 5) {
            descriptors = own_descriptors();
            ASSERT_TRUE(eventually([&] {
                at_the_worker = served.open_descriptors();
                pause_ms(50);
                return served.open_descriptors() == at_the_worker;
            }));
        }
    }
    played.set_state(GST_STATE_NULL);
    EXPECT_LE(own_descriptors(), descriptors);
    EXPECT_TRUE(eventually([&] { return served.open_descriptors() <= at_the_worker; }));
}

} // namespace
