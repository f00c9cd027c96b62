// Resets the JPEG units to the state of a fresh process, and opens a JPEG in it.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/jpeg_writer.h"

// Runs `work` and returns what it prints to standard error.
std::string printed_by(const std::function<void()>& work);

// Resets every variable that the JPEG units use to its value at program start.
void reset_for_jpeg();

class jpeg_test : public testing::Test {
protected:
    void SetUp() override { reset_for_jpeg(); }
    void TearDown() override { reset_for_jpeg(); }

    // Examines `file` and returns the result. Its output is in `printed`.
    int examine(const jpeg_writer::file_bytes& file);

    // Examines `file`, which must succeed, lays out the frame buffer and fills it with `before`.
    void open(const jpeg_writer::file_bytes& file, unsigned char before = 0);

    // Runs `decoder` and returns its result. Its output is in `printed`.
    int decode(int (*decoder)());

    std::vector<unsigned char> allocation() const; // the whole frame buffer

    std::string printed;
};
