#include "gst/timeline.h"

#include <algorithm>

#include <json11.hpp>

namespace {

constexpr double largest = 1e12;

void take_number(const json11::Json& value, uint64_t* number)
{
    if (value.number_value() >= 1 && value.number_value() <= largest) {
        *number = static_cast<uint64_t>(value.number_value());
    }
}

} // namespace

GstClockTime timeline::time_of(uint64_t units) const
{
    return gst_util_uint64_scale_ceil(units, scale_denominator * GST_SECOND, scale_numerator);
}

uint64_t timeline::units_at(GstClockTime time) const
{
    return gst_util_uint64_scale(time, scale_numerator, scale_denominator * GST_SECOND);
}

uint64_t timeline::end() const
{
    return loops < 1 ? UINT64_MAX : duration * static_cast<uint64_t>(loops);
}

void read_timeline(const std::string& status_document, timeline* played)
{
    std::string problem;
    const json11::Json item = json11::Json::parse(status_document, problem)["item"];
    const json11::Json& scale = item["time scale"];
    take_number(item["time duration"], &played->duration);
    if (scale[0].number_value() >= 1 && scale[1].number_value() >= 1 &&
        scale[0].number_value() <= 1e6 && scale[1].number_value() <= 1e6) {
        take_number(scale[0], &played->scale_numerator);
        take_number(scale[1], &played->scale_denominator);
    }
}

uint64_t end_of_frame(uint64_t start, uint64_t guess, uint64_t duration, const frame_test& same_at)
{
    uint64_t low = start; // shown there
    uint64_t step = std::max<uint64_t>(guess, 1);
    uint64_t high = std::min(start + step, duration);
    while (high < duration && same_at(high)) {
        low = high;
        step *= 2;
        high = std::min(high + step, duration);
    }
    bool first = true;
    while (high - low > 1) {
        // A right guess shows at the moment before.
        const uint64_t probe = first ? high - 1 : low + (high - low) / 2;
        (same_at(probe) ? low : high) = probe;
        first = false;
    }
    return high;
}
