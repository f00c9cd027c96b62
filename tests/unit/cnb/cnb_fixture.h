// Common parts of the tests of the CNB domain: a domain of their own, failing system calls, signals
// between processes.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>

#include <gtest/gtest.h>

#include "platform/standalone/cnb/kernel_calls.h"
#include "tests/support/temporary_folder.h"

namespace cnb_test {

// Resets the module; its folder lies under a temporary XDG_RUNTIME_DIR.
class cnb : public testing::Test {
protected:
    cnb();
    ~cnb() override;

    std::string domain_path(const std::string& domain = "default") const
    {
        return runtime.path("stillimage/cnb/" + domain);
    }

    temporary_folder runtime;
};

void write_file(const std::string& path, const std::string& text);

// Passes single bytes between two processes.
class signal_pipe {
public:
    signal_pipe();
    signal_pipe(const signal_pipe&) = delete;
    signal_pipe& operator=(const signal_pipe&) = delete;
    ~signal_pipe();
    void give();
    bool wait(); // false when every process that could give has ended without doing so
    void close_giving_end();

private:
    int ends_[2];
};

// Calls the system unless a test makes a call fail. The fixture resets it.
struct failing_kernel {
    int create_errno = 0;   // memfd_create
    int allocate_errno = 0; // of fallocate ...
    int allocate_from = 0;  // ... from this call on, counted from 0
    int map_errno = 0;
    int mode_errno = 0;
    int seal_errno = 0;
    bool seal_knows_future_write = true;
    bool create_knows_noexec = true;
    int advise_errno = 0;
    int open_errno = 0;
    uint64_t max_uninterrupted = UINT64_MAX; // longer fallocate calls fail with EINTR

    // Recorded calls.
    int allocations = 0;
    uint64_t min_allocation = UINT64_MAX;
    int populated_pieces = 0;
    uint64_t populated_bytes = 0;
    uint64_t max_populated = 0;
};
extern failing_kernel failing;
extern const platform::kernel_calls failing_kernel_calls;

} // namespace cnb_test
