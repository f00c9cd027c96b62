#include "platform/standalone/report/run_state.h"

#include "platform/run_state.h"

namespace {

constexpr uint64_t default_auto_shutdown_us = 60'000'000;

} // namespace

std::atomic<int> DIE4 = 0;
bool vexa_should_exit = false;
bool vexa_ready = false;
uint64_t mono_auto_shutdown = 0;
uint64_t auto_shutdown_delay_initial = default_auto_shutdown_us;

namespace platform {

void reset_run_state()
{
    DIE4 = 0;
    vexa_should_exit = false;
    vexa_ready = false;
    mono_auto_shutdown = 0;
    auto_shutdown_delay_initial = default_auto_shutdown_us;
}

} // namespace platform
