// Conditions for the arguments of system calls, which the kernel checks with a program of its own
// besides the list of allowed calls (calls.h).
#pragma once

#include <cstdint>
#include <vector>

namespace platform {

enum class argument_test {
    IS,          // the lower 32 bits are `value`
    IS_NOT,      // they are something else
    LACKS_BITS,  // none of them that `value` has is set
    IS_ZERO,     // all 64 bits
    IS_AT_LEAST, // the 64 bits, as an unsigned number; `value` is below 2^32
    IS_MULTIPLE, // the 64 bits are one of `value`, value + step, ..., last; all are below 2^32 and
                 // multiples of `step`, which is a power of two
};

struct argument_condition {
    unsigned argument; // from 0
    argument_test test;
    uint32_t value = 0;
    uint32_t last = 0;
    uint32_t step = 0;
};

// All conditions must hold.
using condition_list = std::vector<argument_condition>;

// The call is permitted when all conditions of one alternative hold, and never without one.
struct call_condition {
    long call;
    std::vector<condition_list> alternatives;
};

// Applies the conditions to this process and its children: a call that does not meet its condition
// fails with EPERM. Calls of which there is none are permitted, unless they are those of another
// architecture. False when the kernel cannot do this or does not permit it, or when pointers and
// calls of this architecture cannot be compared in this way; nothing has changed then.
bool restrict_arguments(const std::vector<call_condition>& conditions);

} // namespace platform
