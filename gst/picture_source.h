// The work of the element, without GObject: it opens the picture, chooses a level and produces the
// buffers of the stream. Calls that wait belong to the streaming thread.
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
    int timeout_ms = 10'000; // for the worker to start, to answer, and to come back after its end
    int loops = 1;
    int wanted_width = 0; // of the output; 0: unknown
    int wanted_height = 0;
};

class picture_source {
public:
    // Posts messages on `element`, which outlives this object.
    explicit picture_source(GstElement* element) : element_(element) {}
    picture_source(const picture_source&) = delete;
    picture_source& operator=(const picture_source&) = delete;
    ~picture_source() { show(nullptr); }

    // Returns false and posts an error if the picture cannot be opened.
    bool start(const source_settings& settings);
    void stop();
    void interrupt(bool set);

    // Waits for the picture and reads its sizes. Returns false if interrupted, or after an error
    // that it posts.
    bool prepare();

    // The formats on offer, full size first. Null before prepare(). For any thread.
    GstCaps* caps() const;
    // Chooses one of the caps that downstream allows. Takes ownership of `allowed`.
    GstCaps* fixate(GstCaps* allowed);
    void set_format(const GstVideoInfo& info);
    void set_video_meta(bool understood);

    void seek(GstClockTime to);
    // Of the whole stream; GST_CLOCK_TIME_NONE if it has no end.
    GstClockTime duration() const;

    // Produces the next buffer. If size, format or aspect ratio have changed, sets *renegotiate
    // instead.
    GstFlowReturn next(GstBuffer** buffer, bool* renegotiate);

private:
    struct size {
        int width;
        int height;
    };
    // The moment of the timeline that is shown at `position_`, and the times of its buffer.
    struct shown_moment {
        uint64_t units; // within the duration
        GstClockTime start;
        GstClockTime end; // GST_CLOCK_TIME_NONE: open
    };

    std::string name() const;
    bool report_failure(const char* doing, stillimage_result result);
    bool recover(const char* doing, stillimage_result result);
    bool take(uint64_t units, int width, int height, std::shared_ptr<held_frame>* frame);
    bool report_too_large(const stillimage_picture& picture);
    bool learn_sizes();
    bool set_levels(const stillimage_picture& full, const stillimage_picture& smallest);
    bool learn_timeline();
    bool check_for_changes();
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

    mutable std::mutex shape_; // guards base_, levels_ and played_
    GstVideoInfo base_ = {};   // of the smallest level
    std::vector<size> levels_; // full size first
    timeline played_;

    bool alpha_ = false;     // whether the stream has alpha
    GstVideoInfo info_ = {}; // as negotiated
    bool video_meta_ = false;

    GstClockTime position_ = 0; // of the next buffer
    bool still_shown_ = false;  // a still without a frame rate has only one buffer
    bool discontinuity_ = true;
    uint64_t delay_ = 8; // estimated duration of the next frame, in units

    std::shared_ptr<held_frame> shown_; // at shown_units_
    uint64_t shown_units_ = 0;
    GstBuffer* made_ = nullptr; // from shown_
};
