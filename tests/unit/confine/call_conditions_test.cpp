// Each condition, with a call that fails with EBADF when it is permitted.
#include <cerrno>
#include <functional>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/confine/call_conditions.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "tests/support/child_process.h"
#include "tests/support/refused_calls.h"

using platform::argument_test;
using platform::call_condition;
using platform::condition_list;

namespace {

bool permitted(uint64_t offset, uint64_t whence = 0)
{
    errno = 0;
    EXPECT_EQ(syscall(SYS_lseek, -1, offset, whence), -1);
    EXPECT_TRUE(errno == EBADF || errno == EPERM) << errno;
    return errno == EBADF;
}

class CallConditions : public testing::Test {
protected:
    void SetUp() override
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "sanitizers need more system calls";
        }
        if (run_in_child([] { return platform::restrict_arguments({}) ? 0 : 1; }) != 0) {
            GTEST_SKIP() << "this kernel or architecture cannot compare arguments";
        }
    }

    // Runs `work` in a child in which one of the alternatives must hold for lseek.
    static int restricted(const std::vector<condition_list>& alternatives,
                          const std::function<void()>& work)
    {
        return run_in_child([&] {
            EXPECT_TRUE(platform::restrict_arguments({{SYS_lseek, alternatives}}));
            work();
            return testing::Test::HasFailure() ? 1 : 0;
        });
    }
};

TEST_F(CallConditions, CallWithoutAnAlternativeIsRefused)
{
    EXPECT_EQ(restricted({},
                         [] {
                             EXPECT_FALSE(permitted(0));
                             EXPECT_GT(syscall(SYS_getpid), 0);
                         }),
              0);
}

TEST_F(CallConditions, ValueIsComparedWithTheLowerHalf)
{
    EXPECT_EQ(restricted({{{1, argument_test::IS, 7}}},
                         [] {
                             EXPECT_TRUE(permitted(7));
                             EXPECT_TRUE(permitted(uint64_t{1} << 32 | 7));
                             EXPECT_FALSE(permitted(8));
                         }),
              0);
    EXPECT_EQ(restricted({{{1, argument_test::IS_NOT, 7}}},
                         [] {
                             EXPECT_FALSE(permitted(7));
                             EXPECT_FALSE(permitted(uint64_t{1} << 32 | 7));
                             EXPECT_TRUE(permitted(8));
                         }),
              0);
}

TEST_F(CallConditions, BitsMustAllBeMissing)
{
    EXPECT_EQ(restricted({{{1, argument_test::LACKS_BITS, 6}}},
                         [] {
                             EXPECT_TRUE(permitted(9));
                             EXPECT_FALSE(permitted(2));
                             EXPECT_FALSE(permitted(12));
                         }),
              0);
}

TEST_F(CallConditions, ZeroMeansAllBits)
{
    EXPECT_EQ(restricted({{{1, argument_test::IS_ZERO}}},
                         [] {
                             EXPECT_TRUE(permitted(0));
                             EXPECT_FALSE(permitted(1));
                             EXPECT_FALSE(permitted(uint64_t{1} << 32));
                         }),
              0);
}

TEST_F(CallConditions, MinimumCountsAllBits)
{
    EXPECT_EQ(restricted({{{1, argument_test::IS_AT_LEAST, 0x104000}}},
                         [] {
                             EXPECT_FALSE(permitted(0));
                             EXPECT_FALSE(permitted(0x103FFF));
                             EXPECT_TRUE(permitted(0x104000));
                             EXPECT_TRUE(permitted(uint64_t{1} << 32));
                             EXPECT_TRUE(permitted(UINT64_MAX));
                         }),
              0);
}

TEST_F(CallConditions, MultipleLiesBetweenFirstAndLast)
{
    EXPECT_EQ(restricted({{{1, argument_test::IS_MULTIPLE, 64, 192, 64}}},
                         [] {
                             for (const uint64_t allowed : {64U, 128U, 192U}) {
                                 EXPECT_TRUE(permitted(allowed));
                                 EXPECT_FALSE(permitted(allowed + 1));
                                 EXPECT_FALSE(permitted(allowed - 1));
                                 EXPECT_FALSE(permitted(uint64_t{1} << 32 | allowed));
                             }
                             EXPECT_FALSE(permitted(0));
                             EXPECT_FALSE(permitted(256));
                         }),
              0);
}

TEST_F(CallConditions, AllOfOneAlternativeMustHold)
{
    EXPECT_EQ(restricted({{{1, argument_test::IS, 1}, {2, argument_test::IS, 1}},
                          {{1, argument_test::IS_AT_LEAST, 5}, {2, argument_test::IS, 2}}},
                         [] {
                             EXPECT_TRUE(permitted(1, 1));
                             EXPECT_TRUE(permitted(5, 2));
                             EXPECT_TRUE(permitted(uint64_t{1} << 40, 2));
                             EXPECT_FALSE(permitted(1, 2));
                             EXPECT_FALSE(permitted(5, 1));
                             EXPECT_FALSE(permitted(4, 2));
                         }),
              0);
}

TEST_F(CallConditions, ManyAlternativesAndManyCallsAreAllowed)
{
    std::vector<condition_list> many;
    for (uint32_t i = 0; i < 100; ++i) {
        many.push_back({{1, argument_test::IS_MULTIPLE, 10 * i, 10 * i, 1}});
    }
    EXPECT_EQ(restricted(many,
                         [] {
                             EXPECT_TRUE(permitted(0));
                             EXPECT_TRUE(permitted(990));
                             EXPECT_FALSE(permitted(991));
                         }),
              0);
    EXPECT_EQ(run_in_child([&] {
                  const std::vector<call_condition> too_many(100, {SYS_lseek, many});
                  return platform::restrict_arguments(too_many) ? 1 : 0;
              }),
              0);
}

TEST_F(CallConditions, KernelThatRefusesChangesNothing)
{
    EXPECT_EQ(run_in_child([] {
                  EXPECT_TRUE(refuse_calls({set_seccomp_call, "seccomp"}));
                  EXPECT_FALSE(platform::restrict_arguments({{SYS_lseek, {}}}));
                  EXPECT_TRUE(permitted(0));
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

} // namespace
