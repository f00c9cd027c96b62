// The system's file operations with a call counter: the n-th call fails or kills the process. The
// state is process-wide, because the operations are plain functions.
#pragma once

#include <string>
#include <vector>

#include "platform/standalone/base/file_operations.h"

namespace failing_files {

enum class fate {
    FAIL,        // the call does nothing and fails with `error_number`
    DIE_BEFORE,  // the process is killed instead of the call
    DIE_AFTER,   // the process is killed right after the call
    HALF_WRITES, // every write writes one byte only
};

// Resets the counter; the n-th call from now on (from 1; 0: none) meets this fate.
void arm(int nth, fate what, int error_number = 0);

extern const platform::file_operations operations;

// Names of the calls since arm(): "open_at", "write", ...
const std::vector<std::string>& calls();

} // namespace failing_files
