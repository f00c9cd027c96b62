#include "gst/timeline.h"

namespace {

constexpr uint32_t max_scale_term = 1'000'000;

guint64 nanoseconds(uint32_t seconds)
{
    return guint64{seconds} * static_cast<guint64>(GST_SECOND);
}

} // namespace

timeline::timeline(const timeline_facts& facts) : timeline_facts(facts)
{
    if (scale_numerator > max_scale_term || scale_denominator > max_scale_term) {
        scale_numerator = 1;
        scale_denominator = 1;
    }
}

GstClockTime timeline::time_of(uint64_t units) const
{
    return gst_util_uint64_scale_ceil(units, nanoseconds(scale_denominator), scale_numerator);
}

uint64_t timeline::units_at(GstClockTime time) const
{
    return gst_util_uint64_scale(time, scale_numerator, nanoseconds(scale_denominator));
}

uint64_t timeline::end() const
{
    uint64_t units = UINT64_MAX;
    return loops < 1 || __builtin_mul_overflow(duration, loops, &units) ? UINT64_MAX : units;
}
