// The stream has a constant rate. For each of its frames, the worker is asked for the picture at
// that moment of the timeline. A picture that is still shown is sent again without converting it
// again.
#include "client/tool/calls.h"
#include "client/tool/output.h"
#include "client/tool/play_output.h"
#include "client/tool/play_timeline.h"
#include "client/tool/session.h"
#include "client/tool/y4m.h"

namespace {

constexpr int answer_ms = 5000; // how long the worker may take for a frame of a running stream
constexpr rate still_rate = {25, 1};

class player {
public:
    player(session& worker, const call_options& options) : worker_(worker), options_(options) {}

    exit_status play()
    {
        held_frame first;
        exit_status status = take(0, &first);
        if (status == STATUS_DONE) {
            status = prepare_stream(picture_of(first));
        }
        if (status != STATUS_DONE) {
            return status;
        }
        const stop_signals signals;
        const sending header = send_piece(y4m_header(picture_of(first), stream_, rate_));
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

    // A picture with a single frame lasts one second. In an animation the first frame may be the
    // only one without alpha, so the last frame decides whether the stream has alpha.
    exit_status prepare_stream(const stillimage_picture& first)
    {
        std::string document;
        held_frame last;
        exit_status status = worker_.take_status(&document);
        const timeline reported = timeline_of(document);
        if (status == STATUS_DONE) {
            status = take(reported.duration - 1, &last);
        }
        if (status != STATUS_DONE) {
            return status;
        }
        const stillimage_y4m_stream of_last = y4m_stream_of(picture_of(last));
        const bool first_fits = stillimage_y4m_fits(&first, &of_last) != 0;
        stream_ = first_fits ? of_last : y4m_stream_of(first);
        const bool rate_given = parse_frame_rate(options_.frame_rate, &rate_);
        if (picture_of(last).frame_number == first.frame_number) {
            return STATUS_DONE;
        }
        timeline_ = reported;
        return rate_given ? STATUS_DONE : find_rate();
    }

    // An animation with too many frames for a timeline is sampled at every unit, as far as the
    // highest rate allows.
    exit_status find_rate()
    {
        const stillimage_timeline* shown = nullptr;
        const stillimage_result result =
            stillimage_get_timeline(worker_.client(), worker_.left_ms(), &shown);
        if (result != STILLIMAGE_OK && result != STILLIMAGE_ERROR_LIMIT) {
            return worker_.report("get a frame", result);
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
        wait_for(pace); // the last frame stays for its full time, too
        return STATUS_DONE;
    }

    void wait_for(const play_pace& pace) const
    {
        if (!options_.no_pace) {
            sleep_until(pace.due());
        }
    }

    // Asks the worker even when the frame has probably not changed: that is how the end of the
    // worker is noticed. The command's time limit covers only the start of the stream.
    exit_status load(uint64_t moment)
    {
        worker_.limit_to(answer_ms);
        held_frame frame;
        const exit_status status = take(moment, &frame);
        if (status != STATUS_DONE || picture_of(frame).frame_number == loaded_) {
            return status;
        }
        loaded_ = picture_of(frame).frame_number;
        if (stillimage_y4m_fits(&picture_of(frame), &stream_) == 0) {
            print_error("cannot go on: frame " + std::to_string(loaded_) +
                        " differs from the others in size or kind");
            return STATUS_FAILED;
        }
        bytes_.clear();
        add_y4m_frame(picture_of(frame), stream_, &bytes_);
        return STATUS_DONE;
    }

    session& worker_;
    call_options options_;
    timeline timeline_;
    rate rate_ = still_rate;
    stillimage_y4m_stream stream_ = {};
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
    exit_status status = worker.open(options);
    if (status != STATUS_DONE) {
        return status;
    }
    status = worker.report("wait for the picture",
                           stillimage_wait_ready(worker.client(), 0, worker.left_ms()));
    return status == STATUS_DONE ? player(worker, options).play() : status;
}
