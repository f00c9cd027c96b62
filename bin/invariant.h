// Invariants. They are checked in every build; a broken one aborts the process.
#pragma once

// Prints both on standard error, then aborts. `function` and `condition` are literals.
[[noreturn]] void invariant_failed(const char* function, const char* condition);

// Checks an invariant in the name of another function: for code that several functions with given
// names share.
inline void check_invariant(const char* function, bool holds, const char* condition)
{
    if (!holds) {
        invariant_failed(function, condition);
    }
}

// The text of the condition is part of the interface, so it is written out.
#define INVARIANT(condition, text)                                                                 \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            invariant_failed(__func__, text);                                                      \
        }                                                                                          \
    } while (false)
