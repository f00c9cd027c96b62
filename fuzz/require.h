// How a fuzz target says what must hold.
#pragma once

#include <cstdlib>

// A condition that does not hold ends the process, which is a finding.
inline void require(bool condition)
{
    if (!condition) {
        abort();
    }
}
