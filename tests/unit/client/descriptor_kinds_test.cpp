// A worker may send any kind of descriptor in place of a buffer. Only sealed memory may be mapped.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/shared_area.h"
#include "tests/support/fake_worker.h"
#include "tests/support/hooked_calls.h"
#include "tests/support/readable_memory.h"
#include "tests/support/temporary_folder.h"

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

constexpr const char* no_memory = "the buffer's descriptor is not a memory file";
constexpr const char* not_sealed =
    "the buffer is not sealed against changes of its size and of its memory";
constexpr const char* sparse = "not all of the buffer's memory is reserved";
constexpr const char* too_large = "the buffer has 4 GiB or more";

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
    EXPECT_EQ(refusal(ends[0]), no_memory);
    close(ends[1]);
    ASSERT_EQ(mkfifo(folder.path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(refusal(open(folder.path("fifo").c_str(), O_RDWR | O_CLOEXEC)), no_memory);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(refusal(ends[0]), no_memory);
    close(ends[1]);
    EXPECT_EQ(refusal(open("/dev/zero", O_RDWR | O_CLOEXEC)), no_memory);
    EXPECT_EQ(refusal(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), no_memory);
    EXPECT_EQ(refusal(eventfd(0, EFD_CLOEXEC)), no_memory);
    EXPECT_EQ(refusal(epoll_create1(EPOLL_CLOEXEC)), no_memory);
}

// Pages of other files may never arrive. Only memory files can be sealed, and their pages are
// always present.
TEST(DescriptorKinds, FilesOnOtherFileSystemsAreRefused)
{
    const temporary_folder folder;
    const std::string file = folder.write("file", std::string(page, 'x'));
    const auto opened_file = [](const char* path) { return open(path, O_RDONLY | O_CLOEXEC); };
    EXPECT_NE(refusal(open(file.c_str(), O_RDWR | O_CLOEXEC)), "");
    EXPECT_EQ(refusal(opened_file("/proc/self/maps")), no_memory);
    EXPECT_NE(refusal(opened_file("/proc/self/exe")), "");
}

// Without the first two, the size can change; without the third, memory can be given back, which is
// then missing when it is read.
TEST(DescriptorKinds, MemoryWithoutEachSealIsRefused)
{
    const auto with = [](int seals) {
        return refusal(with_seals(unsealed_memory(std::vector<unsigned char>(page)), seals));
    };
    EXPECT_EQ(refusal(unsealed_memory(std::vector<unsigned char>(page))), not_sealed);
    EXPECT_EQ(with(worker_seals), "");
    EXPECT_EQ(with(size_seals | F_SEAL_FUTURE_WRITE), "");
    EXPECT_EQ(with(size_seals | F_SEAL_WRITE), "");
    EXPECT_EQ(with(size_seals), not_sealed);
    EXPECT_EQ(with(size_seals | F_SEAL_SEAL), not_sealed);
    EXPECT_EQ(with(worker_seals & ~F_SEAL_SHRINK), not_sealed);
    EXPECT_EQ(with(worker_seals & ~F_SEAL_GROW), not_sealed);
}

// Before Linux 5.1 a worker cannot set the seal against writing.
TEST(DescriptorKinds, KernelWithoutTheSealAgainstWritingNeedsTheOthersOnly)
{
    const hooked_calls old_kernel([](const hooked_call& call) {
        const bool unknown =
            call.command == F_ADD_SEALS && (call.argument & F_SEAL_FUTURE_WRITE) != 0;
        return unknown ? EINVAL : 0;
    });
    const auto with = [](int seals) {
        return refusal(with_seals(unsealed_memory(std::vector<unsigned char>(page)), seals));
    };
    EXPECT_EQ(with(size_seals | F_SEAL_SEAL), "");
    EXPECT_EQ(with(F_SEAL_SHRINK), not_sealed);
    EXPECT_EQ(with(F_SEAL_GROW), not_sealed);
}

TEST(DescriptorKinds, SparseMemoryIsRefused)
{
    EXPECT_EQ(refusal(with_seals(sparse_memory(page), worker_seals)), sparse);
    const int all_but_one = sparse_memory(4 * page);
    ASSERT_EQ(fallocate(all_but_one, 0, 0, 3 * page), 0);
    EXPECT_EQ(refusal(with_seals(all_but_one, worker_seals)), sparse);
    const int reserved = sparse_memory(4 * page);
    ASSERT_EQ(fallocate(reserved, 0, 0, 4 * page), 0);
    EXPECT_EQ(refusal(with_seals(reserved, worker_seals)), "");
    const int odd_size = sparse_memory(page + 1);
    ASSERT_EQ(fallocate(odd_size, 0, 0, page + 1), 0);
    EXPECT_EQ(refusal(with_seals(odd_size, worker_seals)), "");
}

// The kernel reports how much memory a file has, but not where.
TEST(DescriptorKinds, HoleThatLooksReservedReadsAsZeros)
{
    const int fd = sparse_memory(4 * page);
    ASSERT_EQ(fallocate(fd, FALLOC_FL_KEEP_SIZE, 4 * page, 4 * page), 0);
    std::string reason;
    const auto area = shared_area::map(with_seals(fd, worker_seals), 4 * page, &reason);
    close(fd);
    ASSERT_NE(area, nullptr) << reason;
    EXPECT_TRUE(is_readable(area->bytes(), area->size()));
    EXPECT_TRUE(std::all_of(area->bytes(), area->bytes() + area->size(),
                            [](unsigned char byte) { return byte == 0; }));
}

// Takes memory away and then seals what is left as a worker does.
int take_away(int fd, bool whole_end)
{
    constexpr int punch = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE;
    const int taken = whole_end ? ftruncate(fd, page) : fallocate(fd, punch, page, page);
    return taken == 0 && fcntl(fd, F_ADD_SEALS, worker_seals) == 0 ? 0 : -1;
}

// Whatever the worker does while the library examines the memory: what is mapped can be read to its
// end.
TEST(DescriptorKinds, MemoryThatIsTakenAwayMeanwhileIsNeverMapped)
{
    constexpr uint64_t size = 4 * page;
    for (const bool whole_end : {true, false}) {
        int calls = 0;
        int moment = 1;
        do {
            const int fd = unsealed_memory(std::vector<unsigned char>(size, 7));
            std::string reason;
            const hooked_calls hook([&](const hooked_call& call) {
                if (call.number == moment) {
                    EXPECT_EQ(take_away(fd, whole_end), 0);
                }
                return 0;
            });
            const auto area = shared_area::map(fd, size, &reason);
            calls = hook.count();
            EXPECT_TRUE(area == nullptr || is_readable(area->bytes(), area->size()))
                << "call " << moment << ": " << reason;
            EXPECT_TRUE(area == nullptr || whole_end) << "call " << moment;
            close(fd);
        } while (++moment <= calls + 1);
        EXPECT_GT(moment, 2);
    }
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

// Touching a page that the system cannot back would end the process, so all of them have to be
// there before.
TEST(DescriptorKinds, LargePagesThatAreNotReservedAreRefused)
{
    const int memory = memfd_create("large", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_HUGETLB);
    if (memory < 0) {
        GTEST_SKIP() << "this system has no large pages";
    }
    ASSERT_EQ(ftruncate(memory, 64 << 20), 0);
    EXPECT_EQ(refusal(with_seals(memory, worker_seals)), sparse);
}

TEST(DescriptorKinds, MemoryOf4GiBAndMoreIsRefused)
{
    constexpr uint64_t limit = UINT64_C(1) << 32;
    for (const uint64_t size : {limit, limit + 1, UINT64_C(1) << 40, UINT64_C(1) << 62}) {
        EXPECT_EQ(refusal(with_seals(sparse_memory(size), worker_seals)), too_large) << size;
        EXPECT_EQ(refusal(with_seals(sparse_memory(size), worker_seals), size), too_large);
    }
    EXPECT_EQ(refusal(with_seals(sparse_memory(limit - page), worker_seals)), sparse);
    EXPECT_EQ(refusal(with_seals(sparse_memory(limit - 1), worker_seals)), sparse);
}

} // namespace
