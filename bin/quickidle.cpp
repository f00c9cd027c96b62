#include "bin/quickidle.h"

#include <ctime>

#include "platform/media_item.h"

bool slow_decode = false;

namespace {

constexpr int most_rounds = 10;
constexpr long slow_decode_sleep_ns = 10'000'000;

} // namespace

void quickidle_rounds()
{
    for (int round = 0; round < most_rounds; ++round) {
        if (idle_vexa_server_comm() + idle_vexa_client_contexts() <= 0) {
            break;
        }
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
