// Common ground of the tests of bin/: a platform as at program start and standard error at hand.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"

class RunFixture : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Runs start_up on "stillimage" and these words.
    int start(const std::vector<std::string>& words);

    // What was printed on standard error since the last call.
    std::string printed();

    // Leaves standard error to a death test, which captures it itself.
    void leave_stderr();

    // How often a life-cycle call was made.
    static long calls(const std::string& name);

private:
    bool capturing = false;
};
