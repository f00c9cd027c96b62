// Base of the serving tests: all state as at program start, and one tracked client.
#pragma once

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"

class ServeFixture : public testing::Test {
protected:
    static constexpr unsigned long client_id = 3;

    void SetUp() override;
    void TearDown() override;

    static void want_size(int32_t width, int32_t height); // the client's output size
};
