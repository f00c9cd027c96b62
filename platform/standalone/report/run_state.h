// Defines the variables of platform/run_state.h.
#pragma once

namespace platform {

// Resets the run state to the values at program start, for tests and fuzzers.
void reset_run_state();

} // namespace platform
