// How far the process is, and when it ends.
#pragma once

#include <atomic>
#include <cstdint>

extern std::atomic<int> DIE4;       // termination signals received
extern bool vexa_should_exit;       // the host or a client asked the process to exit
extern bool vexa_ready;             // frames may be handed out
extern uint64_t mono_auto_shutdown; // monotonic us at which the process ends itself; 0: never
extern uint64_t auto_shutdown_delay_initial; // us from "ready" to the first deadline

static_assert(std::atomic<int>::is_always_lock_free, "DIE4 is written by a signal handler");
