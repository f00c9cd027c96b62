#include "bin/quickidle.h"

#include <ctime>

#include "platform/media_item.h"
#include "platform/time.h"

bool slow_decode = false;

namespace {

constexpr int most_rounds = 10;
constexpr uint64_t pump_gap_us = 500;
constexpr long slow_decode_sleep_ns = 10'000'000;

} // namespace

void quickidle_rounds()
{
    for (int round = 0; round < most_rounds; ++round) {
        const int served = idle_vexa_server_comm(); // before the clients, who may have just come
        if (served + idle_vexa_client_contexts() <= 0) {
            break;
        }
    }
}

void quickidle_when_due()
{
    static uint64_t pumped_us = 0;
    if (monotonic_clock_us() - pumped_us >= pump_gap_us) {
        quickidle_rounds();
        pumped_us = monotonic_clock_us();
    }
}

void quickidle_comm(unsigned long /*unused*/)
{
    quickidle_rounds();
    if (slow_decode) {
        const timespec pause = {0, slow_decode_sleep_ns};
        nanosleep(&pause, nullptr);
    }
}
