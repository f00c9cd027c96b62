// Aborts that a file may cause, for programs that have to live on: fuzzers. Linking this catches
// abort() in the whole program while aborts_as_wanted runs; otherwise it works as ever.
#pragma once

#include <span>

// Runs `work` with its standard error kept back. True when it aborted with one of `wanted` as its
// last words. Any other abort prints what was kept back and ends the process. Frames between here
// and the abort are skipped: nothing in them may need a destructor.
bool aborts_as_wanted(void (*work)(), std::span<const char* const> wanted);
