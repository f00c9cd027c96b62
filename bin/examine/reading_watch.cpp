#include "bin/examine/reading_watch.h"

#include "bin/quickidle.h"
#include "platform/media_item.h"
#include "platform/time.h"

namespace {

constexpr uint64_t service_gap_us = 500;

bool is_decoding = false;
uint64_t served_us = 0;      // when clients were served last
uint64_t signal_seen_us = 0; // when DIE4 was met in here first; 0: never

bool decoder_is_late(uint64_t now_us)
{
    if (DIE4 == 0) {
        return false;
    }
    if (signal_seen_us == 0) {
        signal_seen_us = now_us;
    }
    return now_us - signal_seen_us >= decoder_notices_signal_within_us;
}

} // namespace

void watch_examination()
{
    is_decoding = false;
}

void watch_decoding()
{
    is_decoding = true;
    served_us = monotonic_clock_us();
    signal_seen_us = 0;
}

bool reading_has_to_end()
{
    if (!is_decoding) {
        return DIE4 != 0;
    }
    const uint64_t now_us = monotonic_clock_us();
    if (now_us - served_us >= service_gap_us) {
        quickidle_rounds();
        served_us = monotonic_clock_us();
    }
    return decoder_is_late(now_us);
}
