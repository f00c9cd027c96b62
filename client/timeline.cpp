#include "client/timeline.h"

#include <algorithm>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "client/boundary.h"
#include "client/frames.h"
#include "client/json_scan.h"
#include "client/requests.h"

namespace {

constexpr size_t max_entries = 20'000;

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
        if (result == STILLIMAGE_OK && timeline.store.size() == max_entries) {
            result = fail(client, STILLIMAGE_ERROR_LIMIT,
                          "the timeline has more than " + std::to_string(max_entries) + " frames");
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

// Requests the first frame first. It is there once the picture is ready, and then the document is
// final, too.
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

uint64_t end_of_frame(uint64_t start, uint64_t guess, uint64_t duration, const frame_test& same_at)
{
    uint64_t low = start; // the frame is shown here; after the first loop it is not shown at `high`
    uint64_t step = std::max<uint64_t>(guess, 1);
    uint64_t high = std::min(start + step, duration);
    while (high < duration && same_at(high)) {
        low = high;
        step *= 2;
        high = std::min(high + step, duration);
    }
    uint64_t probe = high - 1; // the frame's last moment when the guess is right
    while (high - low > 1) {
        (same_at(probe) ? low : high) = probe;
        probe = low + (high - low) / 2;
    }
    return high;
}

bool walk_timeline(uint64_t duration, const frame_finder& frame_at, const entry_taker& take)
{
    stillimage_timeline_entry entry = {0, 8, 0}; // a first guess at the duration
    for (; entry.start < duration; entry.start += entry.duration) {
        entry.frame_number = frame_at(entry.start);
        if (entry.frame_number == 0) {
            return false;
        }
        const uint64_t end =
            end_of_frame(entry.start, entry.duration, duration,
                         [&](uint64_t moment) { return frame_at(moment) == entry.frame_number; });
        entry.duration = end - entry.start;
        if (!take(entry)) {
            return false;
        }
    }
    return true;
}

stillimage_result stillimage_get_timeline(stillimage_client* client, int timeout_ms,
                                          const stillimage_timeline** timeline)
{
    return at_boundary(client, [&](stillimage_client& c) {
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
