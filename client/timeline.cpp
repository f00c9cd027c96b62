#include "client/timeline.h"

#include <algorithm>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "client/border.h"
#include "client/frames.h"
#include "client/json_scan.h"

namespace {

constexpr size_t most_entries = 20'000;

// Finds where frames end. `shown_` is what is shown at `low_`; the end lies at `high_` or before it.
class end_search {
public:
    end_search(uint64_t duration, const frame_finder& frame_at)
        : duration_(duration), frame_at_(frame_at)
    {
    }

    // The next frame to be searched for: its number, 0 when it is not to be had.
    uint64_t take(uint64_t start)
    {
        shown_ = frame_at_(start);
        return shown_;
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

// The public timeline with what it points to.
struct owned_timeline : stillimage_timeline {
    std::vector<stillimage_timeline_entry> store;
};

stillimage_result take_entries(stillimage_client& client, uint64_t first, const deadline& until,
                               owned_timeline& timeline)
{
    stillimage_result result = STILLIMAGE_OK;
    const auto frame_at = [&](uint64_t moment) {
        uint64_t number = moment == 0 ? first : 0;
        if (moment != 0 && result == STILLIMAGE_OK) {
            result = find_frame_number(client, moment, until, &number);
        }
        return number;
    };
    const auto take = [&](const stillimage_timeline_entry& entry) {
        if (result == STILLIMAGE_OK && timeline.store.size() == most_entries) {
            result = fail(client, STILLIMAGE_ERROR_LIMIT,
                          "the timeline has more than " + std::to_string(most_entries) + " frames");
        }
        if (result == STILLIMAGE_OK) {
            timeline.store.push_back(entry);
        }
        return result == STILLIMAGE_OK;
    };
    if (!walk_timeline(timeline.duration, frame_at, take) && result == STILLIMAGE_OK) {
        result =
            fail(client, STILLIMAGE_ERROR_PROTOCOL, "the worker sent a frame without a number");
    }
    return result;
}

// The first frame is asked for first: it is there once the picture is ready, and then the document
// is final, too.
stillimage_result take_timeline(stillimage_client& client, const deadline& until,
                                owned_timeline& timeline)
{
    uint64_t first = 0;
    std::string document;
    stillimage_result result = find_frame_number(client, 0, until, &first);
    if (result == STILLIMAGE_OK) {
        result = collect_status(client, until, &document);
    }
    if (result != STILLIMAGE_OK) {
        return result;
    }
    const timeline_facts facts = read_timeline_facts(document);
    timeline.duration = facts.duration;
    timeline.scale_numerator = facts.scale_numerator;
    timeline.scale_denominator = facts.scale_denominator;
    result = take_entries(client, first, until, timeline);
    timeline.count = timeline.store.size();
    timeline.entries = timeline.store.data();
    return result;
}

} // namespace

timeline_facts read_timeline_facts(std::string_view status_document)
{
    const std::string_view item = json_member(status_document, "item");
    const std::string_view scale = json_member(item, "time scale");
    const uint64_t numerator = json_count(json_element(scale, 0));
    const uint64_t denominator = json_count(json_element(scale, 1));
    timeline_facts facts;
    facts.duration = std::max<uint64_t>(json_count(json_member(item, "time duration")), 1);
    if (numerator == 0 || denominator == 0) {
        return facts;
    }
    const uint64_t common = std::gcd(numerator, denominator);
    if (numerator / common <= UINT32_MAX && denominator / common <= UINT32_MAX) {
        facts.scale_numerator = static_cast<uint32_t>(numerator / common);
        facts.scale_denominator = static_cast<uint32_t>(denominator / common);
    }
    return facts;
}

bool walk_timeline(uint64_t duration, const frame_finder& frame_at, const entry_taker& take)
{
    end_search search(duration, frame_at);
    stillimage_timeline_entry entry = {0, 8, 0}; // a first guess
    for (; entry.start < duration; entry.start += entry.duration) {
        entry.frame_number = search.take(entry.start);
        if (entry.frame_number == 0) {
            return false;
        }
        entry.duration = search.end_after(entry.start, entry.duration) - entry.start;
        if (!take(entry)) {
            return false;
        }
    }
    return true;
}

stillimage_result stillimage_get_timeline(stillimage_client* client, int timeout_ms,
                                          const stillimage_timeline** timeline)
{
    return at_border(client, [&](stillimage_client& c) {
        if (timeline == nullptr) {
            return fail(c, STILLIMAGE_ERROR_ARGUMENT, "no place for the timeline");
        }
        *timeline = nullptr;
        auto taken = std::make_unique<owned_timeline>();
        const stillimage_result result = take_timeline(c, deadline(timeout_ms), *taken);
        if (result == STILLIMAGE_OK) {
            *timeline = taken.release();
        }
        return result;
    });
}

void stillimage_timeline_free(const stillimage_timeline* timeline)
{
    delete static_cast<const owned_timeline*>(timeline);
}
