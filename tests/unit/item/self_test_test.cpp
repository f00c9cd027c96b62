#include <gtest/gtest.h>

#include "platform/media_item.h"

namespace {

TEST(SelfTest, PassesOnAWorkingSystem)
{
    EXPECT_EQ(vexa_self_test(), 0);
    EXPECT_EQ(vexa_self_test(), 0);
}

} // namespace
