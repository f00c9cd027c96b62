// A worker may send any kind of descriptor in place of a buffer. Only sealed memory may be mapped.
#include <fcntl.h>
#include <fstream>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/shared_area.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/client/fake_worker.h"

namespace {

constexpr uint64_t page = 4096;

// Why the descriptor is refused; "" when it is mapped. Takes ownership of the descriptor.
std::string refusal(int fd, uint64_t min_size = page)
{
    EXPECT_GE(fd, 0);
    std::string reason;
    const auto area = shared_area::map(fd, min_size, &reason);
    EXPECT_EQ(area == nullptr, !reason.empty());
    close(fd);
    return reason;
}

constexpr const char* not_a_file = "the buffer's descriptor is not a regular file";
constexpr const char* not_sealed = "the buffer is not sealed against shrinking";

TEST(DescriptorKinds, SealedMemoryIsMapped)
{
    EXPECT_EQ(refusal(sealed_memory(std::vector<unsigned char>(page))), "");
    EXPECT_EQ(refusal(sealed_memory(std::vector<unsigned char>(1)), 1), "");
}

TEST(DescriptorKinds, NonFilesAreRefusedWithoutBlocking)
{
    const temporary_folder folder;
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(refusal(ends[0]), not_a_file);
    close(ends[1]);
    ASSERT_EQ(mkfifo(folder.path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(refusal(open(folder.path("fifo").c_str(), O_RDWR | O_CLOEXEC)), not_a_file);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(refusal(ends[0]), not_a_file);
    close(ends[1]);
    EXPECT_EQ(refusal(open("/dev/zero", O_RDWR | O_CLOEXEC)), not_a_file);
    EXPECT_EQ(refusal(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), not_a_file);
    EXPECT_EQ(refusal(eventfd(0, EFD_CLOEXEC)), not_a_file);
    EXPECT_EQ(refusal(epoll_create1(EPOLL_CLOEXEC)), not_a_file);
}

// Pages of other files may never arrive. Only memory files can be sealed, and their pages are
// always present.
TEST(DescriptorKinds, FilesOnOtherFileSystemsAreRefused)
{
    const temporary_folder folder;
    const std::string file = folder.write("file", std::string(page, 'x'));
    EXPECT_EQ(refusal(open(file.c_str(), O_RDWR | O_CLOEXEC)), not_sealed);
    EXPECT_EQ(refusal(open("/proc/self/maps", O_RDONLY | O_CLOEXEC)),
              "the buffer is shorter than the worker says");
    EXPECT_EQ(refusal(open("/proc/self/exe", O_RDONLY | O_CLOEXEC)), not_sealed);
}

TEST(DescriptorKinds, MemoryWithoutTheSealIsRefused)
{
    EXPECT_EQ(refusal(unsealed_memory(std::vector<unsigned char>(page))), not_sealed);
    const int growing = unsealed_memory(std::vector<unsigned char>(page));
    ASSERT_EQ(fcntl(growing, F_ADD_SEALS, F_SEAL_GROW), 0);
    EXPECT_EQ(refusal(growing), not_sealed);
}

TEST(DescriptorKinds, UnreadableMemoryIsRefused)
{
    const int memory = sealed_memory(std::vector<unsigned char>(page));
    const std::string again = "/proc/self/fd/" + std::to_string(memory);
    EXPECT_EQ(refusal(open(again.c_str(), O_WRONLY | O_CLOEXEC)),
              "the buffer cannot be mapped: Permission denied");
    EXPECT_NE(refusal(open(again.c_str(), O_PATH | O_CLOEXEC)), "");
    close(memory);
}

TEST(DescriptorKinds, ShortMemoryIsRefused)
{
    constexpr const char* too_short = "the buffer is shorter than the worker says";
    EXPECT_EQ(refusal(sealed_memory({}), 0), too_short);
    EXPECT_EQ(refusal(sealed_memory(std::vector<unsigned char>(page)), page + 1), too_short);
    EXPECT_EQ(refusal(sealed_memory(std::vector<unsigned char>(page)), UINT64_MAX), too_short);
}

// Touching a page that the system cannot back would end the process, so all pages are reserved when
// the memory is mapped.
TEST(DescriptorKinds, LargePagesThatCannotBeReservedAreRefused)
{
    uint64_t available = 1;
    std::ifstream("/proc/sys/vm/nr_hugepages") >> available;
    const int memory = memfd_create("large", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_HUGETLB);
    if (memory < 0 || available != 0) {
        GTEST_SKIP() << "this system has large pages to spare, or does not support them";
    }
    ASSERT_EQ(ftruncate(memory, 64 << 20), 0);
    ASSERT_EQ(fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK), 0);
    EXPECT_EQ(refusal(memory), "the buffer cannot be mapped: Cannot allocate memory");
}

TEST(DescriptorKinds, AreaLargerThanTheAddressSpaceIsRefused)
{
    const int memory = memfd_create("giant", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    ASSERT_EQ(ftruncate(memory, INT64_C(1) << 52), 0);
    ASSERT_EQ(fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK), 0);
    EXPECT_EQ(refusal(memory), "the buffer cannot be mapped: Cannot allocate memory");
}

} // namespace
