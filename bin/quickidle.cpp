#include "bin/quickidle.h"

#include <cstdint>
#include <ctime>

#include "platform/serving.h"
#include "platform/time.h"

bool slow_decode = false;

namespace {

constexpr int max_rounds = 10;
constexpr uint64_t service_gap_us = 500;
constexpr long slow_decode_sleep_ns = 10'000'000;

uint64_t served_us = 0; // when quickidle_when_due last served, or its clock was started

} // namespace

void quickidle_rounds()
{
    for (int round = 0; round < max_rounds; ++round) {
        const int served = idle_vexa_server_comm(); // first: a client may just have connected
        if (served + idle_vexa_client_contexts() <= 0) {
            break;
        }
    }
}

void start_quickidle_clock()
{
    served_us = monotonic_clock_us();
}

void quickidle_when_due()
{
    if (monotonic_clock_us() - served_us >= service_gap_us) {
        quickidle_rounds();
        start_quickidle_clock();
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
