#include "client/tool/play_schedule.h"

#include <algorithm>

namespace {

constexpr uint64_t min_rate = 2; // frames a second
constexpr uint64_t max_rate = 100;
constexpr uint64_t max_lag = ns_per_second / 2; // that a reader can catch up with

// The largest divisor of `number` up to `limit`; 0 when `limit` is 0.
uint64_t largest_divisor(uint64_t number, uint64_t limit)
{
    uint64_t divisor = std::min(number, limit);
    while (divisor > 1 && number % divisor != 0) {
        --divisor;
    }
    return divisor;
}

} // namespace

rate frame_rate_for(const timeline& played, uint64_t delay)
{
    const rate& scale = played.scale;
    const uint64_t limit = scale.numerator / (min_rate * scale.denominator);
    const uint64_t step = largest_divisor(delay, limit);
    if (step == 0) { // a unit is longer than a frame may last
        const uint64_t frames = (min_rate * scale.denominator - 1) / scale.numerator + 1;
        rate result = {max_rate, 1};
        make_rate(frames * scale.numerator, scale.denominator, &result);
        return result;
    }
    rate result = {max_rate, 1};
    if (scale.numerator <= max_rate * scale.denominator * step) {
        make_rate(scale.numerator, scale.denominator * step, &result);
    }
    return result;
}

// --- counting -----------------------------------------------------------------------------------

fraction_counter::fraction_counter(uint64_t numerator, uint64_t denominator)
    : whole_step_(numerator / denominator), rest_step_(numerator % denominator),
      denominator_(denominator)
{
}

void fraction_counter::advance()
{
    whole_ += whole_step_;
    rest_ += rest_step_;
    if (rest_ >= denominator_) {
        rest_ -= denominator_;
        ++whole_;
    }
}

// --- moments and due times ----------------------------------------------------------------------

play_position::play_position(const timeline& played, const rate& frames_a_second, uint64_t loops)
    : duration_(played.duration), loops_(loops),
      units_(uint64_t{played.scale.numerator} * frames_a_second.denominator,
             uint64_t{played.scale.denominator} * frames_a_second.numerator)
{
}

bool play_position::over() const
{
    return loops_ != 0 && units_.whole() / duration_ >= loops_;
}

uint64_t play_position::moment() const
{
    return units_.whole() % duration_;
}

play_pace::play_pace(const rate& frames_a_second, uint64_t start)
    : start_(start),
      nanoseconds_(ns_per_second * frames_a_second.denominator, frames_a_second.numerator)
{
}

void play_pace::advance(uint64_t now)
{
    nanoseconds_.advance();
    if (now > due() + max_lag) {
        start_ += now - due();
    }
}
