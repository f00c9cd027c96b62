// Common ground of the examination tests: everything as at program start, standard error at hand,
// and nothing left open afterwards.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/failing_calls.h"
#include "tests/support/scripted_platform.h"

class ExamineFixture : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override; // also expects that no descriptor is left

    static void start_anew(); // as SetUp, within a test

    // What was printed on standard error since the last call.
    std::string printed();
    void leave_stderr_alone(); // before a death test, which wants it for itself

    static void add_entry(const std::string& name, const std::string& value, int tag = -1);
    static std::vector<std::string> entries(); // "name=value", holes left out

private:
    size_t descriptors_at_start_ = 0;
    bool captured_ = false;
};

std::vector<unsigned char> read_test_file(const std::string& path); // below tests/data

size_t open_descriptors();
