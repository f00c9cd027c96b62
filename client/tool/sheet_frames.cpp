#include "client/tool/sheet_frames.h"

#include <algorithm>

namespace {

// The i-th of `count` evenly spaced numbers from 1 to `total`.
uint64_t evenly(uint64_t total, uint64_t count, uint64_t i)
{
    const uint64_t steps = count - 1;
    const uint64_t range = total - 1;
    return steps == 0 ? 1 : 1 + range / steps * i + range % steps * i / steps;
}

// The first moment from `low` on that shows frame `number` or a later one; `high` when there is
// none.
uint64_t first_moment(uint64_t number, uint64_t low, uint64_t high,
                      const std::function<uint64_t(uint64_t)>& number_at)
{
    while (low < high) {
        const uint64_t middle = low + (high - low) / 2;
        if (number_at(middle) < number) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

} // namespace

sheet_frames frames_for_sheet(uint64_t duration, size_t max_frames,
                              const std::function<uint64_t(uint64_t moment)>& number_at)
{
    sheet_frames frames;
    frames.total = std::max<uint64_t>(number_at(duration - 1), 1);
    const uint64_t count = std::min<uint64_t>(frames.total, max_frames);
    uint64_t start = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t number = evenly(frames.total, count, i);
        start = first_moment(number, start, duration - 1, number_at);
        if (number_at(start) == number) {
            frames.shown.push_back({number, start});
        }
    }
    return frames;
}
