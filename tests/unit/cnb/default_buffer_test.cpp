#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "common/unique_fd.h"
#include "platform/cnb.h"
#include "platform/standalone/cnb/default_buffer.h"
#include "platform/standalone/cnb/domain.h"
#include "tests/support/child_process.h"
#include "tests/unit/cnb/cnb_fixture.h"

using cnb_test::failing;
using cnb_test::signal_pipe;
using testing::HasSubstr;

namespace {

class DefaultBuffer : public cnb_test::cnb {
protected:
    DefaultBuffer() { platform::cnb_set_domain("default", limit); }

    ~DefaultBuffer() override { cnb_alloc_freeall(); } // before the record is destroyed

    static int load(uint64_t size)
    {
        cnb_static_alloc = 1;
        cnb_total = size;
        return cnb_default_buffer_load();
    }

    // Loads a buffer and expects that the allocation is refused with this reason.
    void expect_refusal(uint64_t size, const std::string& reason)
    {
        ASSERT_EQ(load(size), 0);
        EXPECT_GE(image_cnb_buffer_fd, 0);
        EXPECT_GE(fcntl(image_cnb_buffer_fd, F_GETFD), 0);
        EXPECT_EQ(image_cnb_buffer, 0U);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(cnb_malloc(&allocation, size, "Image"));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "CNB allocation of " + std::to_string(size) + " bytes: " + reason + "\n");
        EXPECT_EQ(allocation.size, 0U);
        EXPECT_LE(failing.allocations, 0);
    }

    // Another process with a buffer of `size` bytes. It ends at a byte from `leave`.
    std::unique_ptr<child_process> neighbour(uint64_t size)
    {
        auto child = std::make_unique<child_process>([&, this] {
            if (load(size) != 0) {
                return 1;
            }
            loaded.give();
            leave.wait();
            return 0;
        });
        loaded.wait();
        return child;
    }

    // Loads as the program does, for up to five seconds.
    static int load_patiently(uint64_t size)
    {
        int result = 1;
        for (int tries = 0; tries < 1000 && result != 0; ++tries) {
            result = load(size);
            usleep(5000);
        }
        return result;
    }

    // The process named by the record of buffer 1.
    uint32_t owner_in_registry() const
    {
        uint32_t owner = 0;
        const unique_fd file(open((domain_path() + "/registry").c_str(), O_RDONLY));
        return pread(file.get(), &owner, sizeof owner, 16 + 8) == sizeof owner ? owner : 0;
    }

    static constexpr uint64_t limit = 1'000'000;
    cnb_allocation allocation; // must outlive its buffer
    signal_pipe loaded;
    signal_pipe leave;
};

TEST_F(DefaultBuffer, IsNoneBeforeItIsLoaded)
{
    EXPECT_EQ(image_cnb_buffer, 0U);
    EXPECT_EQ(image_cnb_buffer_fd, -1);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(cnb_malloc(&allocation, 10, "Image"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "CNB allocation of 10 bytes: it is not loaded\n");
}

TEST_F(DefaultBuffer, LoadGivesNumberAndDescriptor)
{
    ASSERT_EQ(load(1000), 0);
    EXPECT_EQ(image_cnb_buffer, 1U);
    EXPECT_GE(image_cnb_buffer_fd, 0);
    EXPECT_EQ(fcntl(image_cnb_buffer_fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(DefaultBuffer, LoadingAgainChangesNothing)
{
    ASSERT_EQ(load(1000), 0);
    const int fd = image_cnb_buffer_fd;
    ASSERT_EQ(load(2000), 0);
    EXPECT_EQ(image_cnb_buffer_fd, fd);
    EXPECT_EQ(image_cnb_buffer, 1U);
    EXPECT_EQ(platform::cnb_view_domain().buffer_size, 1000U);
}

TEST_F(DefaultBuffer, WholeLimitIsAvailable)
{
    ASSERT_EQ(load(limit), 0);
    EXPECT_TRUE(cnb_malloc(&allocation, limit, "Image"));
}

TEST_F(DefaultBuffer, MoreThanTheLimitIsRefusedAtOnce)
{
    expect_refusal(limit + 1, "the limit of the domain is 1000000 bytes");
}

TEST_F(DefaultBuffer, MoreThanFourGigabytesLessAPageIsRefusedWhateverTheLimit)
{
    platform::cnb_set_domain("default", UINT64_MAX);
    const uint64_t largest = (uint64_t{1} << 32) - static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    expect_refusal(largest + 1, "a buffer has at most " + std::to_string(largest) + " bytes");
    cnb_default_buffer_drop();
    // One byte less gets a number; nothing is reserved yet.
    ASSERT_EQ(load(largest), 0);
    EXPECT_EQ(image_cnb_buffer, 1U);
}

TEST_F(DefaultBuffer, SizesOfTheLargestPicturesAreRefusedAtOnce)
{
    platform::cnb_set_domain("default", UINT64_MAX);
    const std::string reason =
        "a buffer has at most " + std::to_string(platform::largest_buffer()) + " bytes";
    for (const uint64_t size :
         {uint64_t{65536} * 65536 * 4, uint64_t{65535} * 65535 * 3'000'000, UINT64_MAX}) {
        expect_refusal(size, reason);
        cnb_default_buffer_drop();
    }
}

TEST_F(DefaultBuffer, EmptyBufferIsRefused)
{
    expect_refusal(0, "it would be empty");
}

TEST_F(DefaultBuffer, RefusedRequestReservesNothing)
{
    ASSERT_EQ(load(UINT64_MAX), 0);
    child_process other([] {
        platform::cnb_leave_domain();
        return load(limit) == 0 && image_cnb_buffer == 1 ? 0 : 1;
    });
    EXPECT_EQ(other.wait(), 0);
}

TEST_F(DefaultBuffer, WaitsWhileOtherBuffersLeaveNoRoom)
{
    const std::unique_ptr<child_process> other = neighbour(limit);
    EXPECT_NE(load(1), 0);
    EXPECT_NE(load(1), 0);
    EXPECT_EQ(image_cnb_buffer, 0U);
    EXPECT_EQ(image_cnb_buffer_fd, -1);
    leave.give();
    EXPECT_EQ(other->wait(), 0);
    EXPECT_EQ(load_patiently(1), 0);
    EXPECT_EQ(image_cnb_buffer, 2U); // reserved while the other had the first
}

TEST_F(DefaultBuffer, RoomBesideOtherBuffersIsUsedToTheLastByte)
{
    const std::unique_ptr<child_process> other = neighbour(limit - 1000);
    EXPECT_NE(load(1001), 0);
    EXPECT_EQ(load_patiently(1000), 0);
    EXPECT_EQ(image_cnb_buffer, 2U);
    leave.give();
    EXPECT_EQ(other->wait(), 0);
}

TEST_F(DefaultBuffer, DomainsAreIndependent)
{
    const std::unique_ptr<child_process> other = neighbour(limit);
    platform::cnb_leave_domain();
    platform::cnb_set_domain("another", limit);
    EXPECT_EQ(load(limit), 0);
    EXPECT_EQ(image_cnb_buffer, 1U);
    leave.give();
    EXPECT_EQ(other->wait(), 0);
}

TEST_F(DefaultBuffer, DropReleasesEverythingAndMayRunTwice)
{
    ASSERT_EQ(load(1000), 0);
    ASSERT_TRUE(cnb_malloc(&allocation, 1000, "Image"));
    const int fd = image_cnb_buffer_fd;
    cnb_default_buffer_drop();
    cnb_default_buffer_drop();
    EXPECT_EQ(image_cnb_buffer, 0U);
    EXPECT_EQ(image_cnb_buffer_fd, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(allocation.size, 0U);
    EXPECT_EQ(platform::default_mapping.base, nullptr);
    EXPECT_EQ(load(limit), 0);
    EXPECT_EQ(image_cnb_buffer, 1U);
}

TEST_F(DefaultBuffer, NextPictureSeesNothingOfThePreviousOne)
{
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(load(100'000), 0);
        ASSERT_TRUE(cnb_malloc(&allocation, 100'000, "Image"));
        unsigned char* bytes = platform::default_mapping.base;
        for (int i = 0; i < 100'000; ++i) {
            ASSERT_EQ(bytes[i], 0);
            bytes[i] = 0xAB;
        }
        cnb_default_buffer_drop();
    }
}

TEST_F(DefaultBuffer, MoreThanTheMachineHasIsRefusedWithoutAnAttempt)
{
    const temporary_folder machine;
    cnb_test::write_file(machine.path("proc/meminfo"), "MemTotal: 1024 kB\nMemAvailable: 512 kB\n");
    platform::the_machine.root = machine.path();
    constexpr uint64_t room = 512 * 1024 - 1024 * 1024 / 16;
    ASSERT_EQ(load(room + 1), 0);
    EXPECT_EQ(image_cnb_buffer, 1U);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(cnb_malloc(&allocation, room + 1, "Image"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "CNB allocation of 458753 bytes: memory has room for 458752 bytes\n");
    EXPECT_EQ(failing.allocations, 0);
    cnb_default_buffer_drop();
    ASSERT_EQ(load(room), 0);
    EXPECT_TRUE(cnb_malloc(&allocation, room, "Image"));
}

TEST_F(DefaultBuffer, TwiceTheMemoryOfThisMachineIsRefusedCleanly)
{
    const temporary_folder machine;
    cnb_test::write_file(machine.path("proc/meminfo"),
                         "MemTotal: 8000000 kB\nMemAvailable: 7000000 kB\n");
    cnb_test::write_file(machine.path("proc/self/cgroup"), "0::/\n");
    cnb_test::write_file(machine.path("proc/self/mountinfo"),
                         "4 3 0:3 / /g rw - cgroup2 none rw\n");
    cnb_test::write_file(machine.path("g/memory.max"), "1000000\n");
    cnb_test::write_file(machine.path("g/memory.current"), "100000\n");
    platform::the_machine.root = machine.path();
    ASSERT_EQ(load(900'000), 0);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(cnb_malloc(&allocation, 900'000, "Image"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "CNB allocation of 900000 bytes: memory has room for 837500 bytes\n");
    EXPECT_EQ(failing.allocations, 0);
}

TEST_F(DefaultBuffer, FailedReservationNamesStepAndReason)
{
    failing.allocate_errno = ENOSPC;
    ASSERT_EQ(load(1000), 0);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(cnb_malloc(&allocation, 1000, "Image"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "CNB allocation of 1000 bytes: reserving memory: No space left on device\n");
    EXPECT_EQ(platform::default_mapping.base, nullptr);
    failing.allocate_errno = 0;
    EXPECT_TRUE(cnb_malloc(&allocation, 1000, "Image"));
}

// A confined process cannot create memory files any more.
TEST_F(DefaultBuffer, MemoryFileIsCreatedWhenTheDomainIsJoined)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    failing.create_errno = ENOSYS;
    EXPECT_EQ(load(1000), 0);
    EXPECT_GE(image_cnb_buffer_fd, 0);
}

TEST_F(DefaultBuffer, LackOfDescriptorsIsWaitedForAndReportedOnce)
{
    failing.create_errno = EMFILE;
    testing::internal::CaptureStderr();
    EXPECT_NE(load(1000), 0);
    EXPECT_NE(load(1000), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "cannot make 'CNB buffer': Too many open files\n");
    failing.create_errno = 0;
    EXPECT_EQ(load(1000), 0);
}

TEST_F(DefaultBuffer, DomainThatCannotBeJoinedIsARefusal)
{
    platform::cnb_set_domain("..", limit);
    testing::internal::CaptureStderr();
    ASSERT_EQ(load(1000), 0);
    EXPECT_GE(image_cnb_buffer_fd, 0);
    EXPECT_FALSE(cnb_malloc(&allocation, 1000, "Image"));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("CNB allocation of 1000 bytes: the domain cannot be joined\n"));
}

TEST_F(DefaultBuffer, DamagedRegistryIsRefusedByName)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    cnb_test::write_file(domain_path() + "/registry", "something else, longer than a header");
    expect_refusal(1000, "registry in '" + domain_path() + "': not a registry of this version");
}

TEST_F(DefaultBuffer, RemovedFolderIsNotMissed)
{
    ASSERT_EQ(platform::cnb_join_domain(), 0);
    std::filesystem::remove_all(runtime.path("stillimage"));
    ASSERT_EQ(load(1000), 0);
    EXPECT_EQ(image_cnb_buffer, 1U);
}

TEST_F(DefaultBuffer, ClientsGetAReadOnlyDescriptorOnceSomethingIsAllocated)
{
    ASSERT_EQ(load(1000), 0);
    EXPECT_EQ(platform::cnb_open_read_only_descriptor(), -1);
    ASSERT_TRUE(cnb_malloc(&allocation, 1000, "Image"));
    const unique_fd client(platform::cnb_open_read_only_descriptor());
    ASSERT_TRUE(client);
    struct stat ours = {};
    struct stat theirs = {};
    ASSERT_EQ(fstat(image_cnb_buffer_fd, &ours), 0);
    ASSERT_EQ(fstat(client.get(), &theirs), 0);
    EXPECT_EQ(ours.st_ino, theirs.st_ino);
    EXPECT_EQ(theirs.st_size, 1000);
    EXPECT_EQ(fcntl(client.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
}

TEST_F(DefaultBuffer, SocketIsServedDuringALargeReservation)
{
    static int rounds = 0;
    rounds = 0;
    platform::cnb_set_domain("default", uint64_t{1} << 30);
    platform::cnb_reserve_pump = [] {
        ++rounds;
        return true;
    };
    ASSERT_EQ(load(uint64_t{130} << 20), 0);
    ASSERT_TRUE(cnb_malloc(&allocation, uint64_t{130} << 20, "Image"));
    EXPECT_EQ(rounds, 2);
}

TEST_F(DefaultBuffer, DaemonisedChildKeepsTheBytesAndBecomesTheOwner)
{
    child_process parent([this] {
        if (load(limit) != 0) {
            return 1;
        }
        if (fork() != 0) {
            return 0; // as daemon() does
        }
        leave.close_giving_end();
        const bool still_there = load(limit) == 0;
        if (still_there && owner_in_registry() == static_cast<uint32_t>(getpid())) {
            loaded.give();
        }
        loaded.close_giving_end();
        leave.wait();
        _exit(0);
    });
    ASSERT_EQ(parent.wait(), 0);
    loaded.close_giving_end();
    EXPECT_TRUE(loaded.wait());
    EXPECT_NE(load(1), 0);
    leave.give();
    EXPECT_EQ(load_patiently(1), 0);
}

} // namespace
