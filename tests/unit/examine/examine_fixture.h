// Base of the examination tests: resets all state, captures standard error and expects that nothing
// stays open.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/failing_calls.h"
#include "tests/support/scripted_platform.h"

class ExamineFixture : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override; // also expects that no descriptor leaked

    static void start_over(); // like SetUp, within a test

    // The standard error output since the last call.
    std::string printed();
    void leave_stderr_alone(); // before a death test, which captures it itself

    static void add_entry(const std::string& name, const std::string& value, int tag = -1);
    static std::vector<std::string> entries(); // "name=value", without holes

private:
    size_t descriptors_at_start_ = 0;
    bool captured_ = false;
};
