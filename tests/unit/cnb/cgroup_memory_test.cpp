#include <gmock/gmock.h>

#include "platform/standalone/cnb/cgroup_memory.h"
#include "tests/unit/cnb/cnb_fixture.h"

using cnb_test::write_file;
using platform::cgroup_memory_limit;
using platform::cgroup_memory_room;
using platform::find_memory_cgroups;
using platform::memory_cgroup;
using platform::no_memory_limit;

namespace {

constexpr const char* root_mount = "23 1 254:0 / / rw - ext4 /dev/vda rw\n";
constexpr const char* unified_mount =
    "41 31 0:38 / /sys/fs/cgroup rw,relatime shared:4 - cgroup2 cgroup2 rw\n";
constexpr const char* memory_mount =
    "35 31 0:32 / /sys/fs/cgroup/memory rw,relatime - cgroup cgroup rw,memory\n";
constexpr const char* processor_mount =
    "32 31 0:29 / /sys/fs/cgroup/cpu rw,relatime - cgroup cgroup rw,cpu,cpuacct\n";

std::vector<std::string> folders(std::string_view membership, const std::string& mounts)
{
    std::vector<std::string> all;
    for (const memory_cgroup& group : find_memory_cgroups(membership, mounts)) {
        all.push_back(std::to_string(group.version) + " " + group.folder);
    }
    return all;
}

TEST(CgroupMemory, UnifiedHierarchyIsWalkedUp)
{
    EXPECT_THAT(folders("0::/user.slice/job.scope\n", std::string(root_mount) + unified_mount),
                testing::ElementsAre("2 /sys/fs/cgroup/user.slice/job.scope",
                                     "2 /sys/fs/cgroup/user.slice", "2 /sys/fs/cgroup"));
}

TEST(CgroupMemory, RootOfTheHierarchyIsOneFolder)
{
    EXPECT_THAT(folders("0::/\n", unified_mount), testing::ElementsAre("2 /sys/fs/cgroup"));
}

TEST(CgroupMemory, MemoryControllerOfVersion1IsFoundAmongOthers)
{
    EXPECT_THAT(folders("5:cpu,cpuacct:/other\n4:hugetlb,memory:/job\n3:cpuset:/\n",
                        std::string(processor_mount) + memory_mount),
                testing::ElementsAre("1 /sys/fs/cgroup/memory/job", "1 /sys/fs/cgroup/memory"));
}

TEST(CgroupMemory, Version1ComesFirstWhereBothRun)
{
    EXPECT_THAT(folders("4:memory:/job\n0::/\n", std::string(unified_mount) + memory_mount),
                testing::ElementsAre("1 /sys/fs/cgroup/memory/job", "1 /sys/fs/cgroup/memory",
                                     "2 /sys/fs/cgroup"));
}

TEST(CgroupMemory, PathIsRelativeToTheMountedPartOfTheHierarchy)
{
    const char* mount =
        "35 31 0:32 /containers/abc /sys/fs/cgroup/memory ro - cgroup cgroup rw,memory\n";
    EXPECT_THAT(folders("4:memory:/containers/abc/inner\n", mount),
                testing::ElementsAre("1 /sys/fs/cgroup/memory/inner", "1 /sys/fs/cgroup/memory"));
    EXPECT_THAT(folders("4:memory:/containers/abc\n", mount),
                testing::ElementsAre("1 /sys/fs/cgroup/memory"));
}

TEST(CgroupMemory, PathOutsideTheMountMeansTheMountItself)
{
    const char* mount = "35 31 0:32 /containers/abc /sys/fs/cgroup rw - cgroup2 cgroup rw\n";
    EXPECT_THAT(folders("0::/containers/abcdef\n", mount),
                testing::ElementsAre("2 /sys/fs/cgroup"));
    EXPECT_THAT(folders("0::/elsewhere\n", mount), testing::ElementsAre("2 /sys/fs/cgroup"));
    EXPECT_THAT(folders("0::/../elsewhere\n", unified_mount),
                testing::ElementsAre("2 /sys/fs/cgroup"));
}

TEST(CgroupMemory, BlanksInPathsAreUnescaped)
{
    EXPECT_THAT(folders("0::/\n", "41 31 0:38 / /odd\\040place\\134here rw - cgroup2 none rw\n"),
                testing::ElementsAre("2 /odd place\\here"));
}

TEST(CgroupMemory, MissingOrInvalidTextsGiveNone)
{
    EXPECT_THAT(folders("", ""), testing::IsEmpty());
    EXPECT_THAT(folders("0::/\n", ""), testing::IsEmpty());
    EXPECT_THAT(folders("", unified_mount), testing::IsEmpty());
    EXPECT_THAT(folders("garbage\n\n::\n0::\n", unified_mount), testing::IsEmpty());
    EXPECT_THAT(folders("0::/\n", "41\n\n - \n41 31 0:38 / /x rw\n\\\n1 2 3 4\\0"),
                testing::IsEmpty());
    EXPECT_THAT(folders("4:memory:/\n", processor_mount), testing::IsEmpty());
}

class CgroupFolder : public testing::Test {
protected:
    memory_cgroup version1() { return {folder.path(), 1}; }
    memory_cgroup version2() { return {folder.path(), 2}; }

    temporary_folder folder;
};

TEST_F(CgroupFolder, LimitOfVersion2)
{
    EXPECT_EQ(cgroup_memory_limit(version2()), no_memory_limit);
    write_file(folder.path("memory.max"), "max\n");
    EXPECT_EQ(cgroup_memory_limit(version2()), no_memory_limit);
    write_file(folder.path("memory.max"), "1073741824\n");
    EXPECT_EQ(cgroup_memory_limit(version2()), 1073741824U);
}

TEST_F(CgroupFolder, LimitOfVersion1)
{
    write_file(folder.path("memory.limit_in_bytes"), "9223372036854771712\n");
    EXPECT_EQ(cgroup_memory_limit(version1()), no_memory_limit);
    EXPECT_EQ(cgroup_memory_room(version1()), no_memory_limit);
    write_file(folder.path("memory.limit_in_bytes"), "1000\n");
    EXPECT_EQ(cgroup_memory_limit(version1()), 1000U);
}

TEST_F(CgroupFolder, ThrottlingLimitCountsLikeTheHardLimit)
{
    write_file(folder.path("memory.current"), "300\n");
    write_file(folder.path("memory.max"), "1000\n");
    write_file(folder.path("memory.high"), "800\n");
    EXPECT_EQ(cgroup_memory_limit(version2()), 800U);
    EXPECT_EQ(cgroup_memory_room(version2()), 500U);
    write_file(folder.path("memory.max"), "max\n");
    EXPECT_EQ(cgroup_memory_room(version2()), 500U);
    write_file(folder.path("memory.high"), "max\n");
    EXPECT_EQ(cgroup_memory_limit(version2()), no_memory_limit);
    EXPECT_EQ(cgroup_memory_room(version2()), no_memory_limit);
}

TEST_F(CgroupFolder, SwapCountsWhereItIsLimited)
{
    write_file(folder.path("memory.limit_in_bytes"), "1000\n");
    write_file(folder.path("memory.usage_in_bytes"), "400\n");
    write_file(folder.path("memory.memsw.limit_in_bytes"), "1200\n");
    write_file(folder.path("memory.memsw.usage_in_bytes"), "1100\n");
    EXPECT_EQ(cgroup_memory_limit(version1()), 1000U);
    EXPECT_EQ(cgroup_memory_room(version1()), 100U);
    write_file(folder.path("memory.memsw.limit_in_bytes"), "9223372036854771712\n");
    EXPECT_EQ(cgroup_memory_room(version1()), 600U);
}

TEST_F(CgroupFolder, FileCacheCountsAsFree)
{
    write_file(folder.path("memory.max"), "1000\n");
    write_file(folder.path("memory.current"), "700\n");
    EXPECT_EQ(cgroup_memory_room(version2()), 300U);
    write_file(folder.path("memory.stat"), "anon 500\nfile 200\ninactive_file 150\n");
    EXPECT_EQ(cgroup_memory_room(version2()), 450U);

    write_file(folder.path("memory.limit_in_bytes"), "1000\n");
    write_file(folder.path("memory.usage_in_bytes"), "700\n");
    write_file(folder.path("memory.stat"), "inactive_file 1\ntotal_inactive_file 100\n");
    EXPECT_EQ(cgroup_memory_room(version1()), 400U);
}

TEST_F(CgroupFolder, FullGroupHasNoRoom)
{
    write_file(folder.path("memory.max"), "1000\n");
    write_file(folder.path("memory.current"), "1200\n");
    EXPECT_EQ(cgroup_memory_room(version2()), 0U);
    write_file(folder.path("memory.current"), "100\n");
    // The two files are read at different times, so this may be larger than memory.current.
    write_file(folder.path("memory.stat"), "inactive_file 5000\n");
    EXPECT_EQ(cgroup_memory_room(version2()), 1000U);
}

} // namespace
