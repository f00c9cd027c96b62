#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <utility>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/mapping.h"
#include "tests/support/temporary_folder.h"

namespace {

using platform::mapping;

// True while the page at `address` is mapped.
bool is_mapped(void* address)
{
    return msync(address, 1, MS_ASYNC) == 0;
}

TEST(Mapping, SharesTheBytesOfAFile)
{
    const temporary_folder folder;
    const unique_fd fd(platform::open_file(folder.write("f", "abc").c_str(), O_RDWR));
    const mapping map = mapping::shared(fd.get(), 0, 3, PROT_READ | PROT_WRITE);
    ASSERT_TRUE(map);
    EXPECT_EQ(map.size(), 3U);
    map.data()[1] = 'X';
    EXPECT_EQ(folder.read("f"), "aXc");
}

TEST(Mapping, FailureGivesAnEmptyMapping)
{
    EXPECT_FALSE(mapping::shared(-1, 0, 4096, PROT_READ));
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(mapping::shared(0, UINT64_MAX, 4096, PROT_READ));
    EXPECT_EQ(errno, EOVERFLOW);
}

TEST(Mapping, MovesAndUnmapsOnce)
{
    void* page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mapping first(page, 4096);
    mapping second(std::move(first));
    EXPECT_FALSE(first); // NOLINT(bugprone-use-after-move): this is what is tested
    mapping third;
    third = std::move(second);
    EXPECT_EQ(third.data(), page);
    EXPECT_TRUE(is_mapped(page));
    third.reset();
    EXPECT_FALSE(is_mapped(page));
    third.reset();
}

} // namespace
