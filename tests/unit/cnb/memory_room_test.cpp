#include <sys/sysinfo.h>

#include <gtest/gtest.h>

#include "platform/standalone/cnb/memory_room.h"
#include "tests/unit/cnb/cnb_fixture.h"

using cnb_test::write_file;
using platform::memory_reserve;
using platform::memory_room;

namespace {

class Memory : public testing::Test {
protected:
    Memory()
    {
        write_file(root.path("proc/meminfo"),
                   "MemTotal:  1000 kB\nMemFree: 1 kB\nMemAvailable: 600 kB\n");
    }

    void join_group(const std::string& limit, const std::string& usage)
    {
        write_file(root.path("proc/self/cgroup"), "0::/outer/inner\n");
        write_file(root.path("proc/self/mountinfo"), "4 3 0:3 / /groups rw - cgroup2 none rw\n");
        write_file(root.path("groups/outer/inner/memory.max"), "max\n");
        write_file(root.path("groups/outer/memory.max"), limit);
        write_file(root.path("groups/outer/memory.current"), usage);
    }

    temporary_folder root;
};

TEST_F(Memory, MachineCountsWithoutGroups)
{
    const memory_room room(root.path());
    EXPECT_EQ(room.total(), 1000U * 1024);
    EXPECT_EQ(room.available(), 600U * 1024);
}

TEST_F(Memory, TightestGroupOnTheWayUpCounts)
{
    join_group("204800\n", "4800\n");
    const memory_room room(root.path());
    EXPECT_EQ(room.total(), 204800U);
    EXPECT_EQ(room.available(), 200000U);
}

TEST_F(Memory, GroupLargerThanTheMachineIsIgnored)
{
    join_group("1099511627776\n", "0\n");
    const memory_room room(root.path());
    EXPECT_EQ(room.total(), 1000U * 1024);
    EXPECT_EQ(room.available(), 600U * 1024);
}

TEST_F(Memory, WithoutProcTheSystemIsQueried)
{
    const temporary_folder nothing;
    const memory_room room(nothing.path());
    struct sysinfo info = {};
    ASSERT_EQ(sysinfo(&info), 0);
    EXPECT_EQ(room.total(), uint64_t{info.totalram} * info.mem_unit);
    EXPECT_GE(room.available(), room.total() / 2);
    EXPECT_LE(room.available(), room.total());
}

TEST_F(Memory, ThisMachineHasMemory)
{
    const memory_room room;
    EXPECT_GT(room.total(), 0U);
    EXPECT_GT(room.available(), 0U);
}

TEST_F(Memory, ReserveIsASixteenthUpTo256MiB)
{
    EXPECT_EQ(memory_reserve(0), 0U);
    EXPECT_EQ(memory_reserve(uint64_t{1} << 30), uint64_t{64} << 20);
    EXPECT_EQ(memory_reserve(uint64_t{4} << 30), uint64_t{256} << 20);
    EXPECT_EQ(memory_reserve(uint64_t{64} << 30), uint64_t{256} << 20);
}

} // namespace
