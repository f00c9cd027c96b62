// Base of the tests of bin/: the platform as at program start, and standard error captured.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"

class RunFixture : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Runs start_up with "stillimage" and these arguments.
    int start(const std::vector<std::string>& words);

    // The standard error output since the last call.
    std::string printed();

    // Stops capturing standard error before a death test, which captures it itself.
    void leave_stderr();

    // How often this life-cycle call was made.
    static long calls(const std::string& name);

private:
    bool capturing = false;
};
