// The element under test, loaded from the build folder like any plugin, with real workers.
#pragma once

#include <functional>
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/environment.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

struct buffer_unref {
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
};
using held_buffer = std::unique_ptr<GstBuffer, buffer_unref>;

struct object_unref {
    void operator()(void* object) const { gst_object_unref(object); }
};
template <typename Object>
using held_object = std::unique_ptr<Object, object_unref>;

struct message_unref {
    void operator()(GstMessage* message) const { gst_message_unref(message); }
};
using held_message = std::unique_ptr<GstMessage, message_unref>;

// The element alone; the test takes its buffers one by one.
class source_harness {
public:
    struct downstream {
        const char* caps = nullptr;
        bool video_meta = true;
        bool waits = true; // the element waits for each pull; then seek() is not allowed
    };

    explicit source_harness(const std::string& properties)
        : source_harness(properties, downstream())
    {
    }
    source_harness(const std::string& properties, const downstream& how);
    source_harness(const source_harness&) = delete;
    source_harness& operator=(const source_harness&) = delete;
    ~source_harness();

    void play() { gst_harness_play(harness_); }
    held_buffer pull() const { return held_buffer(gst_harness_pull(harness_)); }
    // All buffers up to the end of the stream.
    std::vector<held_buffer> pull_all() const;
    GstElement* element() const { return harness_->element; }
    GstVideoInfo info() const; // from the current caps
    std::string caps_field(const char* name) const;
    // True when the element accepts the seek. A seek waits for the streaming thread, which waits
    // for a pull when downstream waits, so in such a harness this fails.
    bool seek(GstClockTime to, GstClockTime stop = GST_CLOCK_TIME_NONE, double rate = 1.0) const;

private:
    GstHarness* harness_;
    bool waits_;
};

// A pipeline and its messages.
class pipeline {
public:
    explicit pipeline(const std::string& description);
    pipeline(const pipeline&) = delete;
    pipeline& operator=(const pipeline&) = delete;
    ~pipeline();

    GstStateChangeReturn set_state(GstState state) const;
    held_object<GstElement> find(const char* name) const;
    // The next message of these types; null after the time limit.
    held_message wait(unsigned types, int timeout_ms = 30'000) const;
    // Plays up to the end of the stream. Returns "" or the text of the error.
    std::string run() const;
    GstElement* get() const { return pipeline_.get(); }
    void use_clock(GstClock* clock) const
    {
        gst_pipeline_use_clock(GST_PIPELINE(pipeline_.get()), clock);
    }

private:
    held_object<GstElement> pipeline_;
};

std::string text_of_error(GstMessage* message);

class GstFixture : public testing::Test {
protected:
    GstFixture();
    ~GstFixture() override;

    static std::string data(const std::string& name);
    // Writes a picture into a file. A worker that is started for it is killed with the fixture.
    std::string picture_of(const std::string& name, const std::vector<unsigned char>& bytes);
    std::string copy_of(const std::string& name);

    worker_home home;
    changed_environment environment{home.environment()};
    std::vector<std::string> pictures;
};

// Expects the buffer's planes to equal those of the picture. `info` comes from the caps.
void expect_same_planes(GstBuffer* buffer, const GstVideoInfo& info,
                        const stillimage_picture& picture);

// The sample of a plane for the pixel at x, y: a simple second version of the element's copying.
unsigned sample_at(const stillimage_picture& picture, int plane, uint32_t x, uint32_t y);
