#include <gtest/gtest.h>

#include "platform/start_up.h"

namespace {

TEST(SelfTest, PassesOnAWorkingSystem)
{
    EXPECT_EQ(vexa_self_test(), 0);
    EXPECT_EQ(vexa_self_test(), 0);
}

} // namespace
