// A picture with its frame buffer in the scripted platform, for the tests of bin/framebuffer.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bin/framebuffer/layout.h"

struct shape {
    int width = 64;
    int height = 64;
    uint8_t x_shift = 0;
    uint8_t y_shift = 0;
    bool monochrome = false;
    bool alpha = false;
    uint64_t frames = 1;
    int row_multiple = 16; // the buffer height is a multiple of this
};

// Sets the image state as examination leaves it.
void describe(const shape& picture);

// Runs `work` and returns its standard error output.
template <typename function>
std::string printed(function&& work)
{
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

class framebuffer_test : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Lays the picture out and returns what is printed.
    static std::string lay_out(const shape& picture);

    // Lays the picture out, provides the buffer and builds the records; discards what is printed.
    static void allocate(const shape& picture, unsigned char fill = 0);

    // Fills every plane of every full-size frame, with its padding, with random bytes.
    static void fill_planes(uint32_t seed);
};

// A copy of the whole frame buffer.
std::vector<unsigned char> buffer_bytes();

unsigned char& byte_at(uint64_t offset);
