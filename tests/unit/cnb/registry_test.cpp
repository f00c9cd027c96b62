#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/cnb/registry.h"
#include "tests/support/child_process.h"
#include "tests/unit/cnb/cnb_fixture.h"

using platform::buffer_registry;
using platform::claim_result;

namespace {

constexpr uint64_t record_size = 16;

class Registry : public testing::Test {
protected:
    Registry() : folder_fd(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY)) {}

    buffer_registry opened()
    {
        buffer_registry instance;
        EXPECT_EQ(instance.open(folder_fd.get()), 0);
        return instance;
    }

    // The registry file opened once more, to change locks and bytes directly.
    unique_fd file()
    {
        return unique_fd(open(folder.path("registry").c_str(), O_RDWR | O_CREAT, 0600));
    }

    std::vector<unsigned char> bytes_of_file(uint64_t offset, size_t size)
    {
        std::vector<unsigned char> bytes(size);
        EXPECT_EQ(platform::pread_fully(file().get(), bytes.data(), size, offset),
                  static_cast<ssize_t>(size));
        return bytes;
    }

    static void lock(const unique_fd& file, uint64_t first, uint64_t count, short type = F_WRLCK)
    {
        struct flock range = {};
        range.l_type = type;
        range.l_whence = SEEK_SET;
        range.l_start = static_cast<off_t>(first * record_size);
        range.l_len = static_cast<off_t>(count * record_size);
        ASSERT_EQ(fcntl(file.get(), F_OFD_SETLK, &range), 0);
    }

    // The file with a record that somebody else has locked; `owner` is what follows the size.
    unique_fd locked_record(uint64_t number, uint64_t bytes, uint64_t owner)
    {
        unique_fd other = file();
        EXPECT_EQ(platform::pwrite_fully(other.get(), "cnb registry 1\n", 16, 0), 0);
        const uint64_t record[2] = {bytes, owner};
        EXPECT_EQ(platform::pwrite_fully(other.get(), record, record_size, number * record_size),
                  0);
        lock(other, number, 1);
        return other;
    }

    // The PID namespace of this process.
    static uint32_t own_numbers()
    {
        struct stat status = {};
        EXPECT_EQ(stat("/proc/self/ns/pid", &status), 0);
        return static_cast<uint32_t>(status.st_ino);
    }

    // The number of a process that has just ended.
    static uint32_t dead_process()
    {
        child_process child([] { return 0; });
        child.wait();
        return static_cast<uint32_t>(child.pid());
    }

    temporary_folder folder;
    unique_fd folder_fd;
};

// Retries until the registry checks again.
claim_result claim_patiently(buffer_registry& instance, uint64_t bytes, uint64_t limit)
{
    claim_result result = claim_result::NO_ROOM;
    for (int tries = 0; tries < 5000 && result == claim_result::NO_ROOM; ++tries) {
        result = instance.claim(bytes, limit);
        usleep(1000);
    }
    return result;
}

TEST_F(Registry, NumbersStartWithOne)
{
    buffer_registry first = opened();
    EXPECT_EQ(first.number(), 0U);
    ASSERT_EQ(first.claim(10, 100), claim_result::TAKEN);
    EXPECT_EQ(first.number(), 1U);
}

TEST_F(Registry, LowestFreeNumberIsUsed)
{
    std::vector<buffer_registry> all(4);
    for (buffer_registry& each : all) {
        ASSERT_EQ(each.open(folder_fd.get()), 0);
        ASSERT_EQ(each.claim(1, 100), claim_result::TAKEN);
    }
    all[1].release();
    buffer_registry next = opened();
    ASSERT_EQ(next.claim(1, 100), claim_result::TAKEN);
    EXPECT_EQ(next.number(), 2U);
    ASSERT_EQ(all[1].claim(1, 100), claim_result::TAKEN);
    EXPECT_EQ(all[1].number(), 5U);
}

TEST_F(Registry, SumEqualToTheLimitFits)
{
    buffer_registry first = opened();
    buffer_registry second = opened();
    ASSERT_EQ(first.claim(60, 100), claim_result::TAKEN);
    EXPECT_EQ(second.claim(40, 100), claim_result::TAKEN);
}

TEST_F(Registry, OneByteMoreThanTheLimitHasNoRoom)
{
    buffer_registry first = opened();
    buffer_registry second = opened();
    ASSERT_EQ(first.claim(60, 100), claim_result::TAKEN);
    EXPECT_EQ(second.claim(41, 100), claim_result::NO_ROOM);
    EXPECT_EQ(second.number(), 0U);
}

TEST_F(Registry, SumThatDoesNotFit64BitsHasNoRoom)
{
    buffer_registry first = opened();
    buffer_registry second = opened();
    ASSERT_EQ(first.claim(5, UINT64_MAX), claim_result::TAKEN);
    EXPECT_EQ(second.claim(UINT64_MAX - 4, UINT64_MAX), claim_result::NO_ROOM);
    EXPECT_EQ(claim_patiently(second, UINT64_MAX - 5, UINT64_MAX), claim_result::TAKEN);
}

TEST_F(Registry, ReleaseReturnsNumberAndBytes)
{
    buffer_registry first = opened();
    buffer_registry second = opened();
    ASSERT_EQ(first.claim(100, 100), claim_result::TAKEN);
    first.release();
    first.release();
    EXPECT_EQ(first.number(), 0U);
    ASSERT_EQ(second.claim(100, 100), claim_result::TAKEN);
    EXPECT_EQ(second.number(), 1U);
}

TEST_F(Registry, ClosingTheFileReleases)
{
    buffer_registry first = opened();
    ASSERT_EQ(first.claim(100, 100), claim_result::TAKEN);
    first.close();
    buffer_registry second = opened();
    EXPECT_EQ(second.claim(100, 100), claim_result::TAKEN);
}

TEST_F(Registry, SecondClaimByAnOwnerIsRefused)
{
    buffer_registry first = opened();
    ASSERT_EQ(first.claim(1, 100), claim_result::TAKEN);
    EXPECT_EQ(first.claim(1, 100), claim_result::FAILED);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(first.number(), 1U);
}

TEST_F(Registry, LastNumberIs65535AndThenThereIsNoRoom)
{
    constexpr uint64_t last = platform::max_buffers;
    const unique_fd others = file();
    ASSERT_EQ(platform::pwrite_fully(others.get(), "cnb registry 1\n", 16, 0), 0);
    const struct {
        uint64_t bytes;
        uint32_t owner, reserved;
    } taken = {0, 1, 0};
    for (uint64_t number = 1; number <= last; ++number) {
        ASSERT_EQ(platform::pwrite_fully(others.get(), &taken, record_size, number * record_size),
                  0);
    }
    lock(others, 1, last);
    buffer_registry next = opened();
    EXPECT_EQ(next.claim(0, 100), claim_result::NO_ROOM);
    lock(others, last, 1, F_UNLCK);
    EXPECT_EQ(claim_patiently(next, 0, 100), claim_result::TAKEN);
    EXPECT_EQ(next.number(), last);
}

TEST_F(Registry, NumberAfterAFileOf65534RecordsIsTheLast)
{
    const unique_fd others = file();
    ASSERT_EQ(platform::pwrite_fully(others.get(), "cnb registry 1\n", 16, 0), 0);
    ASSERT_EQ(ftruncate(others.get(), 65535 * record_size), 0);
    lock(others, 1, 65534);
    buffer_registry next = opened();
    ASSERT_EQ(next.claim(0, 100), claim_result::TAKEN);
    EXPECT_EQ(next.number(), 65535U);
}

TEST_F(Registry, UnlockedRecordIsFreeWhateverItsContents)
{
    const unique_fd others = file();
    std::vector<unsigned char> garbage(size_t{70000} * record_size, 0xFF);
    ASSERT_EQ(platform::pwrite_fully(others.get(), garbage.data(), garbage.size(), 0), 0);
    ASSERT_EQ(platform::pwrite_fully(others.get(), "cnb registry 1\n", 16, 0), 0);
    buffer_registry next = opened();
    ASSERT_EQ(next.claim(100, 100), claim_result::TAKEN);
    EXPECT_EQ(next.number(), 1U);
}

TEST_F(Registry, RecordCountsNoMoreThanABufferCanHave)
{
    constexpr uint64_t largest = uint64_t{1} << 32;
    const unique_fd other = locked_record(2, UINT64_MAX, 0);
    buffer_registry next = opened();
    EXPECT_EQ(next.claim(1, largest), claim_result::NO_ROOM);
    EXPECT_EQ(claim_patiently(next, 1, largest + 1), claim_result::TAKEN);
}

// --- others that lock what is not theirs ---------------------------------------------------------

TEST_F(Registry, LockedRecordsWithoutABufferCountNothing)
{
    buffer_registry leaving = opened();
    ASSERT_EQ(leaving.claim(100, 100), claim_result::TAKEN);
    leaving.close(); // as when its process is killed: the record keeps its contents
    buffer_registry waiting = opened();
    ASSERT_EQ(waiting.reserve_number(), claim_result::TAKEN);
    uint64_t record[2] = {100, uint64_t{own_numbers()} << 32 | dead_process()};
    ASSERT_EQ(platform::pwrite_fully(file().get(), record, record_size, 2 * record_size), 0);
    const unique_fd other = file();
    lock(other, 2, 60'000);
    EXPECT_EQ(waiting.claim(100, 100), claim_result::TAKEN);
}

TEST_F(Registry, LockedHeaderKeepsNobodyWaiting)
{
    const unique_fd other = file();
    lock(other, 0, 1);
    buffer_registry next = opened();
    EXPECT_EQ(next.claim(100, 100), claim_result::TAKEN);
}

TEST_F(Registry, RecordOfALiveProcessCountsInEveryNamespace)
{
    for (const uint32_t numbers : {own_numbers(), 0U, 1U}) {
        const unique_fd other = locked_record(2, 100, uint64_t{numbers} << 32 | uint64_t(getpid()));
        buffer_registry next = opened();
        EXPECT_EQ(next.claim(1, 100), claim_result::NO_ROOM) << numbers;
    }
}

TEST_F(Registry, RecordOfADeadProcessCountsOnlyInAnotherNamespace)
{
    for (const uint32_t numbers : {own_numbers(), 0U, 1U}) {
        const unique_fd other = locked_record(2, 100, uint64_t{numbers} << 32 | dead_process());
        buffer_registry next = opened();
        EXPECT_EQ(next.claim(1, 100),
                  numbers == own_numbers() ? claim_result::TAKEN : claim_result::NO_ROOM)
            << numbers;
    }
}

TEST_F(Registry, ReservedNumberNeedsNoFurtherLock)
{
    buffer_registry instance = opened();
    ASSERT_EQ(instance.reserve_number(), claim_result::TAKEN);
    EXPECT_EQ(instance.number(), 0U);
    EXPECT_EQ(instance.own_record().offset, record_size);
    EXPECT_EQ(instance.own_record().size, record_size);
    const unique_fd other = file();
    lock(other, 2, 65534); // all others
    EXPECT_EQ(instance.claim(100, 100), claim_result::TAKEN);
    EXPECT_EQ(instance.number(), 1U);
    EXPECT_EQ(opened().reserve_number(), claim_result::NO_ROOM);
}

TEST_F(Registry, ReservedNumberIsNobodyElses)
{
    buffer_registry waiting = opened();
    ASSERT_EQ(waiting.reserve_number(), claim_result::TAKEN);
    buffer_registry next = opened();
    ASSERT_EQ(next.claim(100, 100), claim_result::TAKEN);
    EXPECT_EQ(next.number(), 2U);
    EXPECT_EQ(waiting.claim(1, 100), claim_result::NO_ROOM);
    next.release();
    EXPECT_EQ(claim_patiently(waiting, 100, 100), claim_result::TAKEN);
    EXPECT_EQ(waiting.number(), 1U);
}

TEST_F(Registry, ClearedRecordThatIsStillLockedIsSkipped)
{
    buffer_registry first = opened();
    ASSERT_EQ(first.claim(1, 100), claim_result::TAKEN);
    first.release();
    const unique_fd leaving = file(); // an owner between clearing and unlocking
    lock(leaving, 1, 1);
    ASSERT_EQ(first.claim(1, 100), claim_result::TAKEN);
    EXPECT_EQ(first.number(), 2U);
}

TEST_F(Registry, ReleasedRoomCanBeClaimed)
{
    buffer_registry first = opened();
    buffer_registry second = opened();
    ASSERT_EQ(first.claim(100, 100), claim_result::TAKEN);
    ASSERT_EQ(second.claim(1, 100), claim_result::NO_ROOM);
    first.release();
    EXPECT_EQ(claim_patiently(second, 1, 100), claim_result::TAKEN);
}

TEST_F(Registry, RemovedFileServesThoseWhoHaveItOpen)
{
    buffer_registry first = opened();
    buffer_registry second = opened();
    ASSERT_EQ(first.claim(60, 100), claim_result::TAKEN);
    ASSERT_EQ(unlink(folder.path("registry").c_str()), 0);
    EXPECT_EQ(second.claim(41, 100), claim_result::NO_ROOM);
    EXPECT_EQ(claim_patiently(second, 40, 100), claim_result::TAKEN);
    EXPECT_EQ(opened().claim(100, 100), claim_result::TAKEN);
}

TEST_F(Registry, FileOfAnotherFormatIsRefusedAndKept)
{
    cnb_test::write_file(folder.path("registry"), "cnb registry 2\nsomething");
    buffer_registry instance = opened();
    EXPECT_EQ(instance.claim(1, 100), claim_result::FAILED);
    EXPECT_EQ(errno, EPROTO);
    const std::vector<unsigned char> kept = bytes_of_file(0, 24);
    EXPECT_EQ(std::string(kept.begin(), kept.end()), "cnb registry 2\nsomething");
}

TEST_F(Registry, TruncatedHeaderIsWrittenAgain)
{
    cnb_test::write_file(folder.path("registry"), "cnb");
    buffer_registry instance = opened();
    EXPECT_EQ(instance.claim(1, 100), claim_result::TAKEN);
    const std::vector<unsigned char> header = bytes_of_file(0, 16);
    EXPECT_EQ(std::string(header.begin(), header.end()), std::string("cnb registry 1\n\0", 16));
}

TEST_F(Registry, RecordIsSizeOwnerAndNamespaceLittleEndian)
{
    buffer_registry instance = opened();
    ASSERT_EQ(instance.claim(0x0102030405060708, UINT64_MAX), claim_result::TAKEN);
    std::vector<unsigned char> record = {8, 7, 6, 5, 4, 3, 2, 1};
    for (int byte = 0; byte < 8; ++byte) {
        const uint64_t owner = uint64_t{own_numbers()} << 32 | uint64_t(getpid());
        record.push_back(static_cast<unsigned char>(owner >> (8 * byte)));
    }
    EXPECT_EQ(bytes_of_file(record_size, record_size), record);
    instance.release();
    EXPECT_EQ(bytes_of_file(record_size, record_size), std::vector<unsigned char>(record_size));
}

TEST_F(Registry, FileIsAccessibleToItsUserOnly)
{
    opened();
    struct stat status = {};
    ASSERT_EQ(stat(folder.path("registry").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(Registry, FifoInThePlaceOfTheFileIsRefused)
{
    ASSERT_EQ(mkfifo(folder.path("registry").c_str(), 0600), 0);
    buffer_registry instance;
    EXPECT_EQ(instance.open(folder_fd.get()), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_FALSE(instance);
}

TEST_F(Registry, LinkInThePlaceOfTheFileIsNotFollowed)
{
    ASSERT_EQ(symlink("elsewhere", folder.path("registry").c_str()), 0);
    buffer_registry instance;
    EXPECT_EQ(instance.open(folder_fd.get()), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_NE(access(folder.path("elsewhere").c_str(), F_OK), 0);
}

} // namespace
