// The assertion of fuzz targets.
#pragma once

#include <cstdlib>

// Aborts when the condition is false, which the fuzzing engine reports as a finding.
inline void require(bool condition)
{
    if (!condition) {
        abort();
    }
}
