#include "gst/picture_source.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

#include "client/deadline.h"
#include "gst/element.h"
#include "gst/frame_buffer.h"
#include "gst/video_format.h"

GST_DEBUG_CATEGORY_EXTERN(stillimage_src_debug);
#define GST_CAT_DEFAULT stillimage_src_debug

namespace {

constexpr int pause_us = 100'000; // between attempts to reconnect
constexpr int step_ms = 1000;     // time limit of one attempt
constexpr int max_recoveries = 3; // without a buffer in between
constexpr int still_rate = 25;    // frames a second of a still, unless downstream chooses

} // namespace

// --- opening -------------------------------------------------------------------------------------

std::string picture_source::name() const
{
    return settings_.where.socket.empty() ? settings_.where.picture : settings_.where.socket;
}

bool picture_source::report_failure(const char* doing, stillimage_result result)
{
    if (link_->interrupted()) {
        return false;
    }
    const std::string reason = link_->error();
    if (result == STILLIMAGE_ERROR_NO_WORKER || result == STILLIMAGE_ERROR_REFUSED ||
        result == STILLIMAGE_ERROR_SYSTEM) {
        GST_ELEMENT_ERROR(element_, RESOURCE, OPEN_READ,
                          ("Cannot %s \"%s\": %s", doing, name().c_str(), reason.c_str()),
                          ("%s", stillimage_result_text(result)));
    } else {
        GST_ELEMENT_ERROR(element_, RESOURCE, READ,
                          ("Cannot %s \"%s\": %s", doing, name().c_str(), reason.c_str()),
                          ("%s", stillimage_result_text(result)));
    }
    return false;
}

bool picture_source::start(const source_settings& settings)
{
    settings_ = settings;
    if (name().empty()) {
        GST_ELEMENT_ERROR(element_, RESOURCE, NOT_FOUND,
                          ("No picture to open: set \"location\" or \"socket\""), (nullptr));
        return false;
    }
    if (settings_.where.socket.empty() && access(name().c_str(), F_OK) != 0) {
        GST_ELEMENT_ERROR(element_, RESOURCE, NOT_FOUND,
                          ("Cannot open \"%s\": %s", name().c_str(), g_strerror(errno)), (nullptr));
        return false;
    }
    link_ = std::make_shared<worker_link>();
    const stillimage_result result = link_->open(settings_.where, settings_.timeout_ms);
    return result == STILLIMAGE_OK || report_failure("open", result);
}

void picture_source::stop()
{
    show(nullptr);
    link_.reset(); // frames that are still in use downstream keep the connection open
    prepared_ = false;
    recoveries_ = 0;
    position_ = 0;
    still_shown_ = false;
    discontinuity_ = true;
    const std::lock_guard<std::mutex> guard(shape_);
    levels_.clear();
    played_ = {};
}

void picture_source::interrupt(bool set)
{
    if (link_ != nullptr) {
        link_->interrupt(set);
    }
}

// After the worker's end, retries within the time limit to connect to another one. True if the
// picture is prepared again; otherwise posts the error.
bool picture_source::recover(const char* doing, stillimage_result result)
{
    if (result != STILLIMAGE_ERROR_NO_WORKER || link_->interrupted() ||
        ++recoveries_ > max_recoveries) {
        return report_failure(doing, result);
    }
    GST_ELEMENT_WARNING(element_, RESOURCE, READ,
                        ("The worker of \"%s\" has gone, looking for another one", name().c_str()),
                        ("%s", link_->error().c_str()));
    const deadline until(settings_.timeout_ms);
    do {
        result = link_->open_again(std::min(until.left_ms(), step_ms));
        if (result == STILLIMAGE_OK) {
            show(nullptr);
            prepared_ = false;
            GST_ELEMENT_INFO(element_, RESOURCE, READ,
                             ("Another worker serves \"%s\"", name().c_str()), (nullptr));
            return prepare();
        }
        if (result != STILLIMAGE_ERROR_NO_WORKER && result != STILLIMAGE_ERROR_TIMEOUT) {
            break;
        }
        g_usleep(pause_us);
    } while (!until.passed() && !link_->interrupted());
    return report_failure("go on with", result);
}

// --- the picture's shape -------------------------------------------------------------------------

// Gets a frame. If the worker has ended, the frame may come from another one; shown_ is then null
// or from that worker, too.
bool picture_source::take(uint64_t units, int width, int height, std::shared_ptr<held_frame>* frame)
{
    stillimage_result result = STILLIMAGE_OK;
    do {
        result = link_->get_frame(units, width, height, settings_.timeout_ms, frame);
    } while (result != STILLIMAGE_OK && recover("get a frame of", result));
    return result == STILLIMAGE_OK;
}

bool picture_source::prepare()
{
    if (prepared_) {
        return true;
    }
    const stillimage_result result = link_->wait_ready();
    if (result != STILLIMAGE_OK) {
        return recover("wait for", result);
    }
    prepared_ = learn_timeline() && learn_sizes();
    return prepared_;
}

bool picture_source::report_too_large(const stillimage_picture& picture)
{
    GST_ELEMENT_ERROR(element_, STREAM, FORMAT,
                      ("\"%s\" is too large for raw video", name().c_str()),
                      ("%u x %u", picture.width, picture.height));
    return false;
}

bool picture_source::learn_sizes()
{
    std::shared_ptr<held_frame> full;
    std::shared_ptr<held_frame> smallest;
    if (!take(0, 0, 0, &full) || !take(0, 1, 1, &smallest)) {
        return false;
    }
    return set_levels(full->picture(), smallest->picture()) ||
           report_too_large(smallest->picture());
}

// The number of levels follows from the scale of the smallest one. Levels that raw video cannot
// have are left out; false if none remains.
bool picture_source::set_levels(const stillimage_picture& full, const stillimage_picture& smallest)
{
    const std::lock_guard<std::mutex> guard(shape_);
    levels_.clear();
    if (!video_info_of(smallest, alpha_, &base_)) {
        return false;
    }
    for (unsigned halved = 0; (UINT32_C(65536) >> halved) >= smallest.scale_x; ++halved) {
        const uint64_t round_up = (UINT64_C(1) << halved) - 1;
        const size level = {static_cast<int>((full.width + round_up) >> halved),
                            static_cast<int>((full.height + round_up) >> halved)};
        if (is_video_size(base_, level.width, level.height)) {
            levels_.push_back(level);
        }
    }
    return !levels_.empty();
}

bool picture_source::learn_timeline()
{
    std::string document;
    const stillimage_result result = link_->get_status(settings_.timeout_ms, &document);
    if (result != STILLIMAGE_OK) {
        return recover("get the status of", result);
    }
    timeline played(read_timeline_facts(document));
    played.loops = settings_.loops;
    std::shared_ptr<held_frame> last;
    if (!take(played.duration - 1, 1, 1, &last)) {
        return false;
    }
    played.animated = last->picture().frame_number > 1;
    // Either all frames have alpha, or all but the first, or none.
    alpha_ = last->picture().plane[STILLIMAGE_A] != nullptr;
    const std::lock_guard<std::mutex> guard(shape_);
    played_ = played;
    return true;
}

GstCaps* picture_source::caps() const
{
    const std::lock_guard<std::mutex> guard(shape_);
    if (levels_.empty()) {
        return nullptr;
    }
    GstCaps* caps = gst_caps_new_empty();
    for (const size& level : levels_) {
        GstVideoInfo info = base_;
        info.width = level.width;
        info.height = level.height;
        GstCaps* one = gst_video_info_to_caps(&info);
        gst_caps_set_simple(one, "framerate", GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, nullptr);
        gst_caps_append(caps, one);
    }
    return caps;
}

// With a wanted size, the level that the worker chooses for it; otherwise the largest that is
// allowed.
void picture_source::choose_level(GstCaps* allowed, GstStructure** chosen)
{
    *chosen = gst_caps_get_structure(allowed, 0);
    std::shared_ptr<held_frame> fitting;
    if (settings_.wanted_width < 1 || settings_.wanted_height < 1 ||
        !take(0, settings_.wanted_width, settings_.wanted_height, &fitting)) {
        return;
    }
    for (guint i = 0; i < gst_caps_get_size(allowed); ++i) {
        GstStructure* level = gst_caps_get_structure(allowed, i);
        int width = 0;
        int height = 0;
        gst_structure_get_int(level, "width", &width);
        gst_structure_get_int(level, "height", &height);
        if (width == static_cast<int>(fitting->picture().width) &&
            height == static_cast<int>(fitting->picture().height)) {
            *chosen = level;
        }
    }
}

GstCaps* picture_source::fixate(GstCaps* allowed)
{
    GstStructure* chosen = nullptr;
    choose_level(allowed, &chosen);
    GstCaps* caps = gst_caps_new_full(gst_structure_copy(chosen), nullptr);
    gst_caps_unref(allowed);
    // An animation keeps its own times (rate 0), a still is repeated.
    gst_structure_fixate_field_nearest_fraction(gst_caps_get_structure(caps, 0), "framerate",
                                                played_.animated ? 0 : still_rate, 1);
    return gst_caps_fixate(caps);
}

// --- the stream ----------------------------------------------------------------------------------

void picture_source::seek(GstClockTime to)
{
    position_ = to;
    still_shown_ = false;
    discontinuity_ = true;
}

GstClockTime picture_source::duration() const
{
    const std::lock_guard<std::mutex> guard(shape_);
    return played_.animated && played_.loops >= 1 ? played_.time_of(played_.end())
                                                  : GST_CLOCK_TIME_NONE;
}

bool picture_source::is_over() const
{
    if (!played_.animated) {
        return still_shown_ && info_.fps_n == 0;
    }
    return played_.units_at(position_) >= played_.end();
}

// False also if the frame is not available.
bool picture_source::same_frame(uint64_t units, uint64_t number)
{
    std::shared_ptr<held_frame> frame;
    return take(units, 1, 1, &frame) && frame->picture().frame_number == number;
}

uint64_t picture_source::end_of_shown(uint64_t units)
{
    const uint64_t number = shown_->picture().frame_number;
    const uint64_t end = end_of_frame(units, delay_, played_.duration, [&](uint64_t moment) {
        return !link_->interrupted() && same_frame(moment, number);
    });
    delay_ = end - units;
    return end;
}

// If the worker ends meanwhile, the frame shown is lost, and the search starts again.
bool picture_source::next_moment(shown_moment* moment)
{
    do {
        if (!find_moment(moment)) {
            return false;
        }
    } while (shown_ == nullptr);
    return true;
}

// With a frame rate, each period shows the frame of the moment at which it starts. Without one,
// each frame lasts as long as on the timeline.
bool picture_source::find_moment(shown_moment* moment)
{
    moment->start = position_;
    moment->end = GST_CLOCK_TIME_NONE;
    if (info_.fps_n > 0) {
        const auto rate = static_cast<guint64>(info_.fps_n);
        const guint64 period = static_cast<guint64>(info_.fps_d) * GST_SECOND;
        const guint64 count = gst_util_uint64_scale_round(position_, rate, period);
        moment->start = gst_util_uint64_scale(count, period, rate);
        moment->end = gst_util_uint64_scale(count + 1, period, rate);
    }
    const uint64_t units = played_.animated ? played_.units_at(moment->start) : 0;
    moment->units = units % played_.duration;
    if (!show_frame_at(moment->units)) {
        return false;
    }
    if (moment->units >= played_.duration) { // there is another worker, with a shorter timeline
        show(nullptr);
        return true;
    }
    if (info_.fps_n == 0 && played_.animated) {
        const uint64_t loop_start = units - moment->units;
        moment->end = played_.time_of(loop_start + end_of_shown(moment->units));
    }
    return true;
}

bool picture_source::show_frame_at(uint64_t units)
{
    if (shown_ != nullptr && shown_units_ == units) {
        return true;
    }
    std::shared_ptr<held_frame> taken;
    if (!take(units, info_.width, info_.height, &taken)) {
        return false;
    }
    shown_units_ = units;
    show(std::move(taken));
    return true;
}

void picture_source::show(std::shared_ptr<held_frame> frame)
{
    shown_ = std::move(frame);
    gst_buffer_replace(&made_, nullptr);
}

// The memory of a buffer is made once for each frame; further buffers of the frame share it.
GstBuffer* picture_source::next_buffer()
{
    if (made_ == nullptr) {
        made_ = can_share(*shown_, info_, video_meta_) ? share_frame(shown_, info_)
                                                       : copy_frame(*shown_, info_);
    }
    return made_ == nullptr ? nullptr : gst_buffer_copy(made_);
}

void picture_source::set_format(const GstVideoInfo& info)
{
    info_ = info;
    gst_buffer_replace(&made_, nullptr);
}

void picture_source::set_video_meta(bool understood)
{
    video_meta_ = understood;
    gst_buffer_replace(&made_, nullptr);
}

// After a change of metadata the frame is requested again, since its aspect ratio may be new.
bool picture_source::check_for_changes()
{
    bool metadata = false;
    const stillimage_result result = link_->take_changes(&metadata);
    if (metadata) {
        show(nullptr);
    }
    return result == STILLIMAGE_OK || recover("follow", result);
}

GstFlowReturn picture_source::next(GstBuffer** buffer, bool* renegotiate)
{
    *renegotiate = false;
    shown_moment moment = {};
    if (!check_for_changes() || (!is_over() && !next_moment(&moment))) {
        return link_->interrupted() ? GST_FLOW_FLUSHING : GST_FLOW_ERROR;
    }
    if (is_over()) {
        return GST_FLOW_EOS;
    }
    GstVideoInfo shown_video;
    if (!video_info_of(shown_->picture(), alpha_, &shown_video)) {
        report_too_large(shown_->picture());
        return GST_FLOW_ERROR;
    }
    if (!same_video(shown_video, info_)) {
        *renegotiate = true;
        show(nullptr);
        return learn_sizes() ? GST_FLOW_OK : GST_FLOW_ERROR;
    }
    *buffer = next_buffer();
    if (*buffer == nullptr) {
        GST_ELEMENT_ERROR(element_, RESOURCE, NO_SPACE_LEFT,
                          ("No memory for a frame of \"%s\"", name().c_str()), (nullptr));
        return GST_FLOW_ERROR;
    }
    GST_BUFFER_PTS(*buffer) = moment.start;
    GST_BUFFER_OFFSET(*buffer) = shown_->picture().frame_number - 1;
    if (moment.end != GST_CLOCK_TIME_NONE) {
        GST_BUFFER_DURATION(*buffer) = moment.end - moment.start;
        position_ = moment.end;
    }
    if (discontinuity_) {
        GST_BUFFER_FLAG_SET(*buffer, GST_BUFFER_FLAG_DISCONT);
        discontinuity_ = false;
    }
    still_shown_ = true;
    recoveries_ = 0;
    return GST_FLOW_OK;
}
