// Invariants: always checked, in every build. A broken one aborts the process.
#pragma once

// Prints where and what on standard error, then aborts. `function` and `condition` are literals.
[[noreturn]] void invariant_failed(const char* function, const char* condition);

// The condition's text is part of the interface and so written out beside it.
#define INVARIANT(condition, text)                                                                 \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            invariant_failed(__func__, text);                                                      \
        }                                                                                          \
    } while (false)
