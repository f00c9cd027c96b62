#include "client/tool/play_timeline.h"

#include <algorithm>
#include <numeric>

#include <json11.hpp>

namespace {

constexpr double longest = 1e15; // units

uint64_t number_of(const json11::Json& value)
{
    const double number = value.number_value();
    return number >= 1 && number <= longest ? static_cast<uint64_t>(number) : 0;
}

// Finds where frames end. `shown` is what is shown at `low`; the end lies at `high` or before it.
class end_search {
public:
    end_search(uint64_t duration, const frame_finder& frame_at)
        : duration_(duration), frame_at_(frame_at)
    {
    }

    // The end of the frame that starts at `start`, likely `guess` units later.
    uint64_t end_after(uint64_t start, uint64_t guess)
    {
        low_ = start;
        high_ = std::min(start + guess, duration_);
        while (high_ < duration_ && same_at(high_)) {
            low_ = high_;
            guess *= 2;
            high_ = std::min(high_ + guess, duration_);
        }
        probe(high_ - 1); // a right guess
        while (high_ - low_ > 1) {
            probe(low_ + (high_ - low_) / 2);
        }
        return high_;
    }

    // The next frame to be searched for. False when it is not to be had.
    bool take(uint64_t start)
    {
        shown_ = frame_at_(start);
        return shown_ != 0;
    }

private:
    bool same_at(uint64_t moment) const { return frame_at_(moment) == shown_; }

    void probe(uint64_t moment)
    {
        if (moment > low_) {
            (same_at(moment) ? low_ : high_) = moment;
        }
    }

    uint64_t duration_;
    const frame_finder& frame_at_;
    uint64_t shown_ = 0;
    uint64_t low_ = 0;
    uint64_t high_ = 0;
};

} // namespace

timeline timeline_of(const std::string& status_document)
{
    std::string problem;
    const json11::Json item = json11::Json::parse(status_document, problem)["item"];
    timeline result;
    result.duration = std::max<uint64_t>(number_of(item["time duration"]), 1);
    make_rate(number_of(item["time scale"][0]), number_of(item["time scale"][1]), &result.scale);
    return result;
}

uint64_t common_delay(uint64_t duration, const frame_finder& frame_at)
{
    constexpr int most_frames = 10'000;
    end_search search(duration, frame_at);
    uint64_t common = 0;
    uint64_t delay = 8; // a first guess
    uint64_t start = 0;
    for (int frames = 0; start < duration && common != 1; ++frames) {
        if (frames == most_frames || !search.take(start)) {
            return 1;
        }
        const uint64_t end = search.end_after(start, delay);
        delay = end - start;
        common = std::gcd(common, delay);
        start = end;
    }
    return common;
}
