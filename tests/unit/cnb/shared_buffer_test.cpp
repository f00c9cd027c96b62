#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/cnb/shared_buffer.h"
#include "tests/support/child_process.h"
#include "tests/unit/cnb/cnb_fixture.h"

using cnb_test::failing;
using platform::reserve_failure;
using platform::shared_buffer;

namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
constexpr bool built_with_address_sanitizer = true;
#else
constexpr bool built_with_address_sanitizer = false;
#endif

constexpr uint64_t mebibyte = uint64_t{1} << 20;

class Buffer : public cnb_test::cnb {
protected:
    // Makes a reserved buffer of `size` bytes.
    void make(uint64_t size)
    {
        ASSERT_EQ(memory.create(), 0);
        ASSERT_EQ(memory.reserve(size).step, nullptr);
    }

    void expect_failure(uint64_t size, const char* step, int error_number)
    {
        ASSERT_EQ(memory.create(), 0);
        const int fd = memory.fd();
        const reserve_failure failure = memory.reserve(size);
        ASSERT_NE(failure.step, nullptr);
        EXPECT_STREQ(failure.step, step);
        EXPECT_EQ(failure.error_number, error_number);
        EXPECT_EQ(memory.data(), nullptr);
        EXPECT_EQ(memory.size(), 0U);
        EXPECT_EQ(memory.fd(), fd);
        EXPECT_EQ(status().st_size, 0);
        EXPECT_EQ(status().st_blocks, 0);
    }

    struct stat status() const
    {
        struct stat result = {};
        EXPECT_EQ(fstat(memory.fd(), &result), 0);
        return result;
    }

    shared_buffer memory{&cnb_test::failing_kernel_calls};
};

TEST_F(Buffer, IsZeroedReservedAndOfTheRequestedSize)
{
    make(3 * mebibyte + 1);
    EXPECT_EQ(memory.size(), 3 * mebibyte + 1);
    EXPECT_EQ(status().st_size, 3 * 1024 * 1024 + 1);
    EXPECT_GE(status().st_blocks, (3 * 1024 * 1024 + 1) / 512);
    const unsigned char* end = memory.data() + memory.size();
    EXPECT_EQ(std::find_if(memory.data(), const_cast<unsigned char*>(end),
                           [](unsigned char byte) { return byte != 0; }),
              end);
}

TEST_F(Buffer, IsReadableByItsUserOnly)
{
    make(mebibyte);
    EXPECT_EQ(status().st_mode & 07777U, 0400U);
}

TEST_F(Buffer, CanOnlyBeChangedThroughItsOwnMapping)
{
    make(mebibyte);
    memory.data()[5] = 77;
    EXPECT_EQ(pwrite(memory.fd(), "x", 1, 0), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(ftruncate(memory.fd(), 4096), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(ftruncate(memory.fd(), 4 * mebibyte), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(fallocate(memory.fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, memory.fd(), 0), MAP_FAILED);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(fcntl(memory.fd(), F_ADD_SEALS, F_SEAL_WRITE), -1);
    EXPECT_EQ(errno, EPERM);
    constexpr int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL;
    EXPECT_EQ(fcntl(memory.fd(), F_GET_SEALS) & seals, seals);
    memory.data()[5] = 78;
    EXPECT_EQ(memory.data()[5], 78);
}

TEST_F(Buffer, ReadOnlyDescriptorReadsTheBytesAndCannotChangeThem)
{
    make(mebibyte);
    memory.data()[5] = 77;
    const unique_fd reader(memory.open_read_only());
    ASSERT_TRUE(reader);
    EXPECT_EQ(fcntl(reader.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(fcntl(reader.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    unsigned char byte = 0;
    EXPECT_EQ(pread(reader.get(), &byte, 1, 5), 1);
    EXPECT_EQ(byte, 77);
    EXPECT_EQ(write(reader.get(), "x", 1), -1);
    EXPECT_EQ(ftruncate(reader.get(), 0), -1);
    EXPECT_EQ(fcntl(reader.get(), F_ADD_SEALS, F_SEAL_WRITE), -1);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, reader.get(), 0), MAP_FAILED);

    void* view = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, reader.get(), 0);
    ASSERT_NE(view, MAP_FAILED);
    EXPECT_EQ(static_cast<unsigned char*>(view)[5], 77);
    EXPECT_EQ(mprotect(view, 4096, PROT_READ | PROT_WRITE), -1);
    EXPECT_EQ(madvise(view, 4096, MADV_REMOVE), -1);
    memory.data()[5] = 78;
    EXPECT_EQ(static_cast<unsigned char*>(view)[5], 78);
    munmap(view, 4096);
}

TEST_F(Buffer, EachReadOnlyDescriptorHasItsOwnOffset)
{
    make(mebibyte);
    const unique_fd first(memory.open_read_only());
    const unique_fd second(memory.open_read_only());
    ASSERT_EQ(lseek(first.get(), 1000, SEEK_SET), 1000);
    EXPECT_EQ(lseek(second.get(), 0, SEEK_CUR), 0);
    EXPECT_EQ(lseek(memory.fd(), 0, SEEK_CUR), 0);
}

// The kernel lets root open anything for writing, but the seals still hold.
TEST_F(Buffer, DescriptorReopenedForWritingCannotWrite)
{
    make(mebibyte);
    const unique_fd reader(memory.open_read_only());
    const std::string path = "/proc/self/fd/" + std::to_string(reader.get());
    const unique_fd writer(open(path.c_str(), O_RDWR));
    if (geteuid() != 0) {
        EXPECT_FALSE(writer);
        return;
    }
    ASSERT_TRUE(writer);
    EXPECT_EQ(write(writer.get(), "x", 1), -1);
    EXPECT_EQ(ftruncate(writer.get(), 0), -1);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, writer.get(), 0), MAP_FAILED);
}

TEST_F(Buffer, AnotherUserCannotReopenTheDescriptor)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    make(mebibyte);
    const unique_fd reader(memory.open_read_only());
    child_process child([&] {
        constexpr uid_t nobody = 65534;
        // Changing the user makes /proc/self inaccessible, which is not what this test is about.
        if (setgid(nobody) != 0 || setuid(nobody) != 0 || prctl(PR_SET_DUMPABLE, 1) != 0) {
            return 1;
        }
        const std::string path = "/proc/self/fd/" + std::to_string(reader.get());
        void* view = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, reader.get(), 0);
        if (access("/proc/self/fd", R_OK) != 0 || view == MAP_FAILED) {
            return 2;
        }
        return open(path.c_str(), O_RDWR) < 0 && errno == EACCES ? 0 : 3;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(Buffer, WithoutProcTheSealsProtectTheDescriptor)
{
    failing.open_errno = ENOENT;
    make(mebibyte);
    const unique_fd reader(memory.open_read_only());
    ASSERT_TRUE(reader);
    EXPECT_NE(reader.get(), memory.fd());
    EXPECT_EQ(fcntl(reader.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(write(reader.get(), "x", 1), -1);
    EXPECT_EQ(ftruncate(reader.get(), 0), -1);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, reader.get(), 0), MAP_FAILED);
}

TEST_F(Buffer, WithoutProcAndSealNoDescriptorIsReturned)
{
    failing.open_errno = ENOENT;
    failing.seal_knows_future_write = false;
    make(mebibyte);
    EXPECT_EQ(memory.open_read_only(), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Buffer, MappingOutlivesTheBuffer)
{
    make(mebibyte);
    memory.data()[5] = 77;
    const unique_fd reader(memory.open_read_only());
    memory.reset();
    memory.reset();
    EXPECT_EQ(memory.fd(), -1);
    unsigned char byte = 0;
    EXPECT_EQ(pread(reader.get(), &byte, 1, 5), 1);
    EXPECT_EQ(byte, 77);
}

TEST_F(Buffer, NoDescriptorForClientsBeforeMemoryIsReserved)
{
    EXPECT_EQ(memory.open_read_only(), -1);
    ASSERT_EQ(memory.create(), 0);
    EXPECT_EQ(memory.open_read_only(), -1);
    EXPECT_EQ(errno, ENODATA);
}

TEST_F(Buffer, KernelWithoutTheNoexecFlagWorks)
{
    failing.create_knows_noexec = false;
    make(mebibyte);
    EXPECT_EQ(status().st_mode & 07777U, 0400U);
}

TEST_F(Buffer, KernelWithoutTheFutureWriteSealKeepsTheOthers)
{
    failing.seal_knows_future_write = false;
    make(mebibyte);
    EXPECT_EQ(ftruncate(memory.fd(), 0), -1);
    constexpr int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    EXPECT_EQ(fcntl(memory.fd(), F_GET_SEALS) & seals, seals);
    const unique_fd reader(memory.open_read_only());
    ASSERT_TRUE(reader);
    EXPECT_EQ(write(reader.get(), "x", 1), -1);
}

TEST_F(Buffer, CreationFailureIsReported)
{
    failing.create_errno = EMFILE;
    EXPECT_EQ(memory.create(), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(memory.fd(), -1);
}

TEST_F(Buffer, FullMemoryReleasesTheReservedPieces)
{
    failing.allocate_errno = ENOSPC;
    failing.allocate_from = 2;
    expect_failure(200 * mebibyte, "reserving memory", ENOSPC);
    EXPECT_EQ(failing.allocations, 2);
}

TEST_F(Buffer, MappingFailureReleasesTheMemory)
{
    failing.map_errno = ENOMEM;
    expect_failure(mebibyte, "mapping", ENOMEM);
}

TEST_F(Buffer, IsNotCreatedWithoutItsMode)
{
    failing.mode_errno = EPERM;
    EXPECT_EQ(memory.create(), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(memory.fd(), -1);
}

TEST_F(Buffer, SealFailureReleasesTheMemory)
{
    failing.seal_errno = EBUSY;
    expect_failure(mebibyte, "sealing", EBUSY);
}

TEST_F(Buffer, FailureMayBeFollowedByASuccess)
{
    failing.map_errno = ENOMEM;
    expect_failure(mebibyte, "mapping", ENOMEM);
    failing.map_errno = 0;
    EXPECT_EQ(memory.reserve(mebibyte).step, nullptr);
    EXPECT_EQ(memory.size(), mebibyte);
}

TEST_F(Buffer, MemoryIsReservedInPiecesOf64MiB)
{
    make(150 * mebibyte);
    EXPECT_EQ(failing.allocations, 3);
    EXPECT_EQ(failing.min_allocation, 22 * mebibyte);
}

TEST_F(Buffer, SocketCanBeServedBetweenPieces)
{
    static int rounds = 0;
    rounds = 0;
    ASSERT_EQ(memory.create(), 0);
    const auto serve = [] {
        ++rounds;
        return true;
    };
    ASSERT_EQ(memory.reserve(150 * mebibyte, serve).step, nullptr);
    EXPECT_EQ(rounds, 2);
}

TEST_F(Buffer, ReservationCanBeInterruptedBetweenPiecesAndRetried)
{
    ASSERT_EQ(memory.create(), 0);
    const reserve_failure failure = memory.reserve(150 * mebibyte, [] { return false; });
    EXPECT_STREQ(failure.step, "reserving memory");
    EXPECT_EQ(failure.error_number, EINTR);
    EXPECT_EQ(failing.allocations, 1);
    EXPECT_EQ(status().st_size, 0);
    EXPECT_EQ(memory.reserve(mebibyte).step, nullptr);
}

TEST_F(Buffer, InterruptionsMakeThePiecesSmaller)
{
    failing.max_uninterrupted = mebibyte;
    make(3 * mebibyte + 4097);
    EXPECT_EQ(failing.allocations, 4);
    EXPECT_EQ(status().st_size, 3 * 1024 * 1024 + 4097);
}

TEST_F(Buffer, FastTimerDoesNotStarveTheReservation)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    const itimerval fast = {{0, 1000}, {0, 1000}};
    const itimerval off = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &fast, nullptr), 0);
    EXPECT_EQ(memory.create(), 0);
    const reserve_failure failure = memory.reserve(256 * mebibyte);
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(failure.step, nullptr);
    EXPECT_EQ(status().st_blocks * 512, 256 * 1024 * 1024);
}

TEST_F(Buffer, FileSizeLimitIsAnErrorAndNotASignal)
{
    child_process child([&] {
        const rlimit limit = {mebibyte, mebibyte};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0 || memory.create() != 0) {
            return 1;
        }
        const reserve_failure failure = memory.reserve(mebibyte + 1);
        const bool reported = failure.step != nullptr && failure.error_number == EFBIG;
        return reported && memory.reserve(mebibyte).step == nullptr ? 0 : 2;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(Buffer, AddressSpaceLimitIsAnError)
{
    if (built_with_address_sanitizer) {
        GTEST_SKIP() << "the sanitizer's own mappings exceed any limit";
    }
    child_process child([&] {
        const rlimit limit = {256 * mebibyte, 256 * mebibyte};
        if (setrlimit(RLIMIT_AS, &limit) != 0 || memory.create() != 0) {
            return 1;
        }
        const reserve_failure failure = memory.reserve(512 * mebibyte);
        return failure.step != nullptr && strcmp(failure.step, "mapping") == 0 ? 0 : 2;
    });
    EXPECT_EQ(child.wait(), 0);
}

} // namespace
