// A stream at a constant rate: each of its frames is asked for by its moment on the timeline. One that
// is still on is sent again as it was.
#include "client/tool/call.h"
#include "client/tool/output.h"
#include "client/tool/play_output.h"
#include "client/tool/play_timeline.h"
#include "client/tool/session.h"
#include "client/tool/y4m.h"

namespace {

constexpr int answer_ms = 5000; // of a worker that a stream depends on
constexpr rate still_rate = {25, 1};

const stillimage_picture& picture_of(const held_frame& frame)
{
    return *stillimage_frame_picture(frame.get());
}

class player {
public:
    player(session& worker, const call_options& options) : worker_(worker), options_(options) {}

    exit_status play()
    {
        held_frame first;
        exit_status status = take(0, &first);
        if (status == STATUS_DONE) {
            status = find_shape_and_timeline(picture_of(first));
        }
        if (status != STATUS_DONE) {
            return status;
        }
        const stop_signals signals;
        const sending header = send_piece(y4m_header(picture_of(first), shape_, rate_));
        return header == sending::SENT ? send_frames() : status_of(header);
    }

private:
    static exit_status status_of(sending sent)
    {
        return sent == sending::FAILED ? STATUS_FAILED : STATUS_DONE;
    }

    exit_status take(uint64_t moment, held_frame* frame)
    {
        options_.time_position = moment;
        return worker_.take_frame(options_, frame);
    }

    // A picture without a second frame is on for a second. Of an animation the first frame may be the
    // only one without alpha.
    exit_status find_shape_and_timeline(const stillimage_picture& first)
    {
        timeline told;
        held_frame last;
        exit_status status = ask_timeline(&told);
        if (status == STATUS_DONE) {
            status = take(told.duration - 1, &last);
        }
        if (status != STATUS_DONE) {
            return status;
        }
        const y4m_shape of_last = y4m_shape_of(picture_of(last));
        shape_ = y4m_fits(first, of_last) ? of_last : y4m_shape_of(first);
        const bool rate_given = parse_frame_rate(options_.frame_rate, &rate_);
        if (picture_of(last).frame_number == first.frame_number) {
            return STATUS_DONE;
        }
        timeline_ = told;
        return rate_given ? STATUS_DONE : find_rate();
    }

    exit_status ask_timeline(timeline* told) const
    {
        char* json = nullptr;
        const stillimage_result result =
            stillimage_get_status(worker_.client(), worker_.left_ms(), &json);
        if (result != STILLIMAGE_OK) {
            return worker_.failed("get the status", result);
        }
        *told = timeline_of(json);
        stillimage_free(json);
        return STATUS_DONE;
    }

    // An animation of too many frames is sampled as finely as the stream may.
    exit_status find_rate()
    {
        const stillimage_timeline* shown = nullptr;
        const stillimage_result result =
            stillimage_get_timeline(worker_.client(), worker_.left_ms(), &shown);
        if (result != STILLIMAGE_OK && result != STILLIMAGE_ERROR_LIMIT) {
            return worker_.failed("get a frame", result);
        }
        rate_ = frame_rate_for(timeline_, shown != nullptr ? common_delay(*shown) : 1);
        stillimage_timeline_free(shown);
        return STATUS_DONE;
    }

    exit_status send_frames()
    {
        play_position position(timeline_, rate_, options_.loops);
        play_pace pace(rate_, now_ns());
        for (; !position.over(); position.advance()) {
            const exit_status status = load(position.moment());
            if (status != STATUS_DONE) {
                return status;
            }
            wait_for(pace);
            const sending sent = send_piece(bytes_);
            if (sent != sending::SENT) {
                return status_of(sent);
            }
            pace.advance(now_ns());
        }
        wait_for(pace); // the last frame is on for its time, too
        return STATUS_DONE;
    }

    void wait_for(const play_pace& pace) const
    {
        if (!options_.no_pace) {
            sleep_until(pace.due());
        }
    }

    // The worker is asked even when the frame is likely still on: so it is seen when it goes. The
    // command's time limit was for the start of the stream.
    exit_status load(uint64_t moment)
    {
        worker_.limit_to(answer_ms);
        held_frame frame;
        const exit_status status = take(moment, &frame);
        if (status != STATUS_DONE || picture_of(frame).frame_number == loaded_) {
            return status;
        }
        loaded_ = picture_of(frame).frame_number;
        if (!y4m_fits(picture_of(frame), shape_)) {
            tell("cannot go on: frame " + std::to_string(loaded_) +
                 " differs from the others in size or kind");
            return STATUS_FAILED;
        }
        bytes_.clear();
        add_y4m_frame(picture_of(frame), shape_, &bytes_);
        return STATUS_DONE;
    }

    session& worker_;
    call_options options_;
    timeline timeline_;
    rate rate_ = still_rate;
    y4m_shape shape_;
    uint64_t loaded_ = 0; // number of the frame in `bytes_`
    std::string bytes_;
};

} // namespace

exit_status call_play(const call_options& options)
{
    if (!output_takes_bytes()) {
        return STATUS_FAILED;
    }
    session worker;
    const exit_status status = worker.open(options);
    if (status != STATUS_DONE) {
        return status;
    }
    const stillimage_result ready = stillimage_wait_ready(worker.client(), 0, worker.left_ms());
    if (ready != STILLIMAGE_OK) {
        return worker.failed("wait for the picture", ready);
    }
    return player(worker, options).play();
}
