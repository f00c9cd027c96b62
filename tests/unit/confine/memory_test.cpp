#include <sys/resource.h>

#include <gtest/gtest.h>

#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/cnb/memory_room.h"
#include "platform/standalone/confine/memory.h"
#include "tests/support/child_process.h"
#include "tests/support/item_fixture.h"

using platform::address_space_limit;

namespace {

constexpr uint64_t mebibyte = uint64_t{1} << 20;
constexpr uint64_t gibibyte = uint64_t{1} << 30;

TEST(ConfinementMemory, LimitIsTheSumOfAllNeeds)
{
    EXPECT_EQ(address_space_limit({.mapped = 0, .buffer = 0, .memory = 16 * gibibyte}),
              4 * gibibyte + 256 * mebibyte);
    EXPECT_EQ(address_space_limit(
                  {.mapped = 12 * mebibyte, .buffer = 3 * gibibyte, .memory = 16 * gibibyte}),
              7 * gibibyte + 268 * mebibyte);
}

TEST(ConfinementMemory, CodecsGetHalfOfASmallMemory)
{
    EXPECT_EQ(address_space_limit({.mapped = 0, .buffer = 0, .memory = 2 * gibibyte}),
              gibibyte + 256 * mebibyte);
    EXPECT_EQ(address_space_limit({.mapped = 0, .buffer = 0, .memory = 8 * gibibyte - 2}),
              4 * gibibyte - 1 + 256 * mebibyte);
    EXPECT_EQ(address_space_limit({.mapped = 0, .buffer = 0, .memory = 8 * gibibyte + 2}),
              4 * gibibyte + 256 * mebibyte);
}

TEST(ConfinementMemory, UnknownMemoryCountsAsSufficient)
{
    EXPECT_EQ(address_space_limit({.mapped = 0, .buffer = gibibyte, .memory = 0}),
              5 * gibibyte + 256 * mebibyte);
}

TEST(ConfinementMemory, OverflowingSumIsTheMaximum)
{
    EXPECT_EQ(address_space_limit({.mapped = 1, .buffer = UINT64_MAX, .memory = 0}), UINT64_MAX);
    EXPECT_EQ(address_space_limit({.mapped = UINT64_MAX - mebibyte, .buffer = 0, .memory = 0}),
              UINT64_MAX);
}

class ConfinementMemoryOfThisProcess : public item_test::ItemFixture {};

TEST_F(ConfinementMemoryOfThisProcess, BufferIsTheDomainsLimitUpToTheMaximum)
{
    platform::cnb_set_domain("small", 64 * mebibyte);
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    const platform::memory_need need = platform::present_memory_need();
    EXPECT_EQ(need.buffer, 64 * mebibyte);
    EXPECT_GT(need.mapped, mebibyte);
    EXPECT_EQ(need.memory, platform::memory_room().total());
    platform::cnb_leave_domain();
    platform::cnb_set_domain("large", 64 * gibibyte);
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    EXPECT_EQ(platform::present_memory_need().buffer, platform::largest_buffer());
}

TEST_F(ConfinementMemoryOfThisProcess, LimitsAreLoweredButNeverRaised)
{
    const int status = run_in_child([] {
        const uint64_t before = uint64_t{1} << 50;
        for (const uint64_t asked : {before, before / 2, before}) {
            EXPECT_TRUE(platform::limit_address_space(asked));
            rlimit limit = {};
            EXPECT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
            EXPECT_LE(limit.rlim_cur, asked);
            EXPECT_LE(limit.rlim_max, before);
        }
        rlimit limit = {};
        EXPECT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
        EXPECT_EQ(limit.rlim_cur, before / 2);
        EXPECT_EQ(limit.rlim_max, before / 2);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
}

} // namespace
