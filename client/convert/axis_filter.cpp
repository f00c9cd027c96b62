#include "client/convert/axis_filter.h"

#include <algorithm>

axis_filter::axis_filter(uint32_t from, uint32_t to)
{
    ranges_.reserve(to);
    weights_.reserve(size_t{from} + to);
    if (to < from) {
        reduce(from, to);
    } else {
        enlarge(from, to);
    }
}

void axis_filter::add(uint32_t first, uint32_t count)
{
    ranges_.push_back({first, count, weights_.size()});
}

// In units of 1 / `to` of a sample: a sample is `to` units long, a result `from` units.
void axis_filter::reduce(uint32_t from, uint32_t to)
{
    for (uint64_t i = 0; i < to; ++i) {
        const uint64_t start = i * from;
        const uint64_t end = start + from;
        const uint64_t first = start / to;
        const uint64_t last = (end - 1) / to;
        add(static_cast<uint32_t>(first), static_cast<uint32_t>(last - first + 1));
        for (uint64_t sample = first; sample <= last; ++sample) {
            const uint64_t covered =
                std::min((sample + 1) * to, end) - std::max(sample * to, start);
            weights_.push_back(static_cast<float>(static_cast<double>(covered) / from));
        }
    }
}

// In units of 1 / (2 * `to`) of a sample, counted from the first sample's centre.
void axis_filter::enlarge(uint32_t from, uint32_t to)
{
    const int64_t sample = int64_t{2} * to;
    for (int64_t i = 0; i < to; ++i) {
        const int64_t centre = std::max<int64_t>((2 * i + 1) * from - to, 0);
        const int64_t first = centre / sample;
        const int64_t past = centre % sample;
        if (past == 0 || first + 1 >= from) {
            add(static_cast<uint32_t>(first), 1);
            weights_.push_back(1);
        } else {
            add(static_cast<uint32_t>(first), 2);
            const auto share =
                static_cast<float>(static_cast<double>(past) / static_cast<double>(sample));
            weights_.push_back(1 - share);
            weights_.push_back(share);
        }
    }
}
