// The file is a table of records, one per buffer number; record 0 is the header. A number is taken
// while the bytes of its record are locked. The kernel releases a lock with the last descriptor of
// its owner, so a crash needs no clean-up: an unlocked record is free, whatever it contains. All
// locks belong to the open file, not to the process, and so are inherited by a forked child.
//
// Nothing is locked but one's own record, so nobody can keep others waiting: a claim is written
// first, and withdrawn when the others then leave no room for it. Of two that compete both may
// withdraw, but never both stay.
#include "platform/standalone/cnb/registry.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/time.h"

namespace platform {

namespace {

struct record {
    uint64_t bytes;      // 0: the number is held, but there is no buffer
    uint32_t owner;      // process id; 0 after a release
    uint32_t id_numbers; // the PID namespace in which `owner` counts; 0: unknown
};
static_assert(sizeof(record) == 16, "the size of a record is file format");

constexpr char header[sizeof(record)] = "cnb registry 1\n";
constexpr uint32_t records_at_once = 256;

// What a record counts at most: offsets in a buffer have 32 bits.
constexpr uint64_t most_of_a_record = uint64_t{1} << 32;

// Limits the share of a waiting process's time that surveys use: 1 / (1 + rest_factor). Freed room
// is noticed after the longest rest at the latest.
constexpr uint64_t rest_factor = 10;
constexpr uint64_t max_rest_us = 250'000;

uint64_t offset_of(uint32_t number)
{
    return uint64_t{number} * sizeof(record);
}

struct flock lock_of(uint32_t number, short type)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(offset_of(number));
    lock.l_len = sizeof(record);
    return lock;
}

int set_lock(int file, uint32_t number, short type)
{
    struct flock lock = lock_of(number, type);
    return fcntl(file, F_OFD_SETLK, &lock);
}

// Whether another open file has locked the record. When the kernel gives no answer, it counts as
// locked.
bool is_held(int file, uint32_t number)
{
    struct flock lock = lock_of(number, F_WRLCK);
    return fcntl(file, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

// Checks the header, and writes it when the file is new. 0, or -1 with errno.
int check_header(int file)
{
    char found[sizeof header] = {};
    const ssize_t got = pread_fully(file, found, sizeof found, 0);
    if (got < 0) {
        return -1;
    }
    if (got < ssize_t{sizeof found}) {
        return pwrite_fully(file, header, sizeof header, 0);
    }
    if (memcmp(found, header, sizeof header) != 0) {
        errno = EPROTO;
        return -1;
    }
    return 0;
}

// The PID namespace of this process; 0 when it cannot be determined.
uint32_t own_id_numbers()
{
    struct stat status = {};
    return stat("/proc/self/ns/pid", &status) == 0 ? static_cast<uint32_t>(status.st_ino) : 0;
}

// A record that is locked although its owner is dead is locked by somebody without a buffer. Owners
// in other namespaces cannot be asked for.
bool has_dead_owner(const record& entry, uint32_t id_numbers)
{
    if (id_numbers == 0 || entry.id_numbers != id_numbers) {
        return false;
    }
    const std::string process = "/proc/" + std::to_string(entry.owner);
    return faccessat(AT_FDCWD, process.c_str(), F_OK, 0) != 0 && errno == ENOENT;
}

uint64_t bytes_of(int file, uint32_t number, const record& entry, uint32_t id_numbers)
{
    const bool counts =
        entry.bytes != 0 && is_held(file, number) && !has_dead_owner(entry, id_numbers);
    return counts ? std::min(entry.bytes, most_of_a_record) : 0;
}

// The sum of all buffers but the one with the number `except`.
int sum_of_others(int file, uint32_t except, uint32_t id_numbers, uint64_t* sum)
{
    std::array<record, records_at_once> records;
    *sum = 0;
    for (uint32_t number = 1; number <= max_buffers; number += records_at_once) {
        const ssize_t got = pread_fully(file, records.data(), sizeof records, offset_of(number));
        if (got < 0) {
            return -1;
        }
        const uint32_t count = std::min(static_cast<uint32_t>(got / ssize_t{sizeof(record)}),
                                        max_buffers + 1 - number);
        for (uint32_t i = 0; i < count; ++i) {
            if (number + i != except) {
                *sum = saturating_add(*sum, bytes_of(file, number + i, records[i], id_numbers));
            }
        }
        if (count < records_at_once) {
            break;
        }
    }
    return 0;
}

bool is_busy(int error_number)
{
    return error_number == EAGAIN || error_number == EACCES;
}

} // namespace

int buffer_registry::open(int folder)
{
    close();
    // O_NONBLOCK: opening must not wait when a FIFO has the name of the file.
    unique_fd file(open_file_at(folder, registry_name,
                                O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EPROTO;
        return -1;
    }
    file_ = std::move(file);
    id_numbers_ = own_id_numbers();
    return 0;
}

// The lowest record that nobody has locked.
claim_result buffer_registry::reserve_number()
{
    if (number_ != 0) {
        return claim_result::TAKEN;
    }
    if (check_header(file_.get()) != 0) {
        return claim_result::FAILED;
    }
    uint32_t number = 1;
    while (number <= max_buffers && set_lock(file_.get(), number, F_WRLCK) != 0) {
        if (!is_busy(errno)) {
            return claim_result::FAILED;
        }
        ++number;
    }
    if (number > max_buffers) {
        return claim_result::NO_ROOM;
    }
    number_ = number;
    if (write_record(0, getpid()) != 0) {
        const int write_errno = errno;
        give_number_back();
        errno = write_errno;
        return claim_result::FAILED;
    }
    return claim_result::TAKEN;
}

claim_result buffer_registry::claim(uint64_t bytes, uint64_t limit)
{
    if (claimed_) {
        errno = EBUSY;
        return claim_result::FAILED;
    }
    const uint64_t begin = monotonic_clock_us();
    if (begin < look_again_us_) {
        return claim_result::NO_ROOM;
    }
    claim_result result = reserve_number();
    if (result == claim_result::TAKEN) {
        result = claim_reserved(bytes, limit);
    }
    const int claim_errno = errno;
    const uint64_t now = monotonic_clock_us();
    const uint64_t rest = std::min((now - begin) * rest_factor, max_rest_us);
    look_again_us_ = result == claim_result::NO_ROOM ? now + rest : 0;
    errno = claim_errno;
    return result;
}

claim_result buffer_registry::claim_reserved(uint64_t bytes, uint64_t limit)
{
    const claim_result before = room_for(bytes, limit);
    if (before != claim_result::TAKEN) {
        return before;
    }
    if (write_record(bytes, getpid()) != 0) {
        return claim_result::FAILED;
    }
    // Whoever writes at the same time reads this claim, or this process reads theirs.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    const claim_result after = room_for(bytes, limit);
    if (after != claim_result::TAKEN) {
        const int room_errno = errno;
        write_record(0, getpid());
        errno = room_errno;
        return after;
    }
    bytes_ = bytes;
    claimed_ = true;
    return claim_result::TAKEN;
}

claim_result buffer_registry::room_for(uint64_t bytes, uint64_t limit) const
{
    uint64_t others = 0;
    uint64_t sum = 0;
    if (sum_of_others(file_.get(), number_, id_numbers_, &others) != 0) {
        return claim_result::FAILED;
    }
    const bool fits = checked_add(others, bytes, &sum) && sum <= limit;
    return fits ? claim_result::TAKEN : claim_result::NO_ROOM;
}

void buffer_registry::release()
{
    if (number_ != 0) {
        // A record that cannot be cleared is free nevertheless, because it is unlocked.
        write_record(0, 0);
        give_number_back();
    }
    bytes_ = 0;
    owner_ = 0;
    claimed_ = false;
}

// A confined process keeps its number until it ends.
void buffer_registry::give_number_back()
{
    if (set_lock(file_.get(), number_, F_UNLCK) == 0) {
        number_ = 0;
    }
}

void buffer_registry::close()
{
    file_.reset();
    number_ = 0;
    bytes_ = 0;
    owner_ = 0;
    claimed_ = false;
    look_again_us_ = 0;
}

void buffer_registry::note_owner()
{
    if (number_ != 0 && owner_ != getpid()) {
        write_record(bytes_, getpid());
    }
}

registry_record buffer_registry::own_record() const
{
    return {file_.get(), static_cast<uint32_t>(offset_of(number_)), sizeof(record)};
}

int buffer_registry::write_record(uint64_t bytes, pid_t owner)
{
    const record entry = {bytes, static_cast<uint32_t>(owner), owner != 0 ? id_numbers_ : 0};
    if (pwrite_fully(file_.get(), &entry, sizeof entry, offset_of(number_)) != 0) {
        return -1;
    }
    owner_ = owner;
    return 0;
}

} // namespace platform
