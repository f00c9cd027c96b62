// What the element does, apart from being one: opening the picture, choosing a level, the buffers of
// the stream one after the other. Waiting calls are the streaming thread's.
#pragma once

#include <cstdint>
#include <gst/video/video.h>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "gst/timeline.h"
#include "gst/worker_link.h"

struct source_settings {
    worker_link::address where;
    int timeout_ms = 10'000; // for the worker to answer, to start, and to come back
    int loops = 1;
    int wanted_width = 0; // of the output; 0: not known
    int wanted_height = 0;
};

class picture_source {
public:
    // Messages are posted on `element`, which outlives the object.
    explicit picture_source(GstElement* element) : element_(element) {}
    picture_source(const picture_source&) = delete;
    picture_source& operator=(const picture_source&) = delete;
    ~picture_source() { show(nullptr); }

    // False with an error message when the picture cannot be opened.
    bool start(const source_settings& settings);
    void stop();
    void interrupt(bool set);

    // Waits for the picture and learns its sizes. False with a message, or when interrupted.
    bool prepare();

    // What can be delivered, full size first. Null before prepare(). From any thread.
    GstCaps* caps() const;
    // The one to take of what downstream allows. Takes `allowed` over.
    GstCaps* fixate(GstCaps* allowed);
    void set_format(const GstVideoInfo& info);
    void set_video_meta(bool understood);

    void seek(GstClockTime to);
    // Of the whole stream; GST_CLOCK_TIME_NONE when it has no end.
    GstClockTime duration() const;

    // The next buffer. *renegotiate instead, without one, when the picture has changed its shape.
    GstFlowReturn next(GstBuffer** buffer, bool* renegotiate);

private:
    struct size {
        int width;
        int height;
    };
    // What is shown from `position_` on: the moment of the timeline, and the times of the buffer.
    struct shown_moment {
        uint64_t units; // within the duration
        GstClockTime start;
        GstClockTime end; // GST_CLOCK_TIME_NONE: open
    };

    std::string name() const;
    bool tell_failure(const char* doing, stillimage_result result);
    bool recover(const char* doing, stillimage_result result);
    bool take(uint64_t units, int width, int height, std::shared_ptr<held_frame>* frame);
    bool learn_sizes();
    bool learn_timeline();
    bool look_for_changes();
    bool show_frame_at(uint64_t units);
    void show(std::shared_ptr<held_frame> frame);
    GstBuffer* next_buffer();
    bool is_over() const;
    bool next_moment(shown_moment* moment);
    bool find_moment(shown_moment* moment);
    uint64_t end_of_shown(uint64_t units);
    bool same_frame(uint64_t units, uint64_t number);
    void choose_level(GstCaps* allowed, GstStructure** chosen);

    GstElement* element_;
    source_settings settings_;
    std::shared_ptr<worker_link> link_;
    bool prepared_ = false;
    int recoveries_ = 0; // since the last buffer

    mutable std::mutex shape_; // over base_, levels_ and played_
    GstVideoInfo base_ = {};   // of the full picture
    std::vector<size> levels_; // full size first
    timeline played_;

    bool alpha_ = false;     // the stream has it
    GstVideoInfo info_ = {}; // as negotiated
    bool video_meta_ = false;

    GstClockTime position_ = 0; // of the next buffer
    bool still_shown_ = false;  // the one buffer of a still without a frame rate
    bool discontinuity_ = true;
    uint64_t delay_ = 8; // a guess at how long the next frame is shown, in units

    std::shared_ptr<held_frame> shown_; // at shown_units_
    uint64_t shown_units_ = 0;
    GstBuffer* made_ = nullptr; // of shown_
};
