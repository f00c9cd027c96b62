#include "bin/examine/reading_watch.h"

#include "bin/quickidle.h"
#include "platform/run_state.h"
#include "platform/time.h"

namespace {

bool is_decoding = false;
uint64_t signal_seen_us = 0; // when this unit first saw DIE4; 0: not yet

bool decoder_is_late()
{
    const uint64_t now_us = monotonic_clock_us();
    if (signal_seen_us == 0) {
        signal_seen_us = now_us;
    }
    return now_us - signal_seen_us >= max_decoder_delay_us;
}

} // namespace

void watch_examination()
{
    is_decoding = false;
    start_quickidle_clock();
}

void watch_decoding()
{
    is_decoding = true;
    start_quickidle_clock();
    signal_seen_us = 0;
}

bool must_stop_reading()
{
    quickidle_when_due();
    return DIE4 != 0 && (!is_decoding || decoder_is_late());
}
