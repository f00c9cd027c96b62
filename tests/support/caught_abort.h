// Catches aborts that a file is allowed to cause, for programs that must continue, such as fuzzers.
// Linking this replaces abort() in the whole program; it is caught only while aborts_as_wanted
// runs.
#pragma once

#include <span>

// Runs `work` with its standard error captured. True when it aborted after printing a text that
// ends in one of `wanted`. After any other abort the captured text is printed and the process ends.
// The abort jumps over the frames of `work`: no object in them may need a destructor.
bool aborts_as_wanted(void (*work)(), std::span<const char* const> wanted);
