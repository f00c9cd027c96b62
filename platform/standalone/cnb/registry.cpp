// The file is a table of records, one per buffer number; record 0 is the header. A number is taken
// while the bytes of its record are locked. The kernel releases a lock with the last descriptor of
// its owner, so a crash needs no clean-up: an unlocked record is free, whatever it contains. The
// lock on the header is held while the table is read and changed. All locks belong to the open
// file, not to the process, and so are inherited by a forked child.
#include "platform/standalone/cnb/registry.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/standalone/base/checked_math.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/time.h"

namespace platform {

namespace {

struct record {
    uint64_t bytes;
    uint32_t owner; // process id, for people; 0 after a release
    uint32_t reserved;
};
static_assert(sizeof(record) == 16, "the size of a record is file format");

constexpr uint32_t header_number = 0;
constexpr char header[sizeof(record)] = "cnb registry 1\n";
constexpr uint32_t records_at_once = 256;

constexpr int lock_tries = 10;
constexpr timespec pause_between_tries = {0, 100'000};

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

int lock_header(int file)
{
    for (int left = lock_tries; set_lock(file, header_number, F_WRLCK) != 0; --left) {
        if ((errno != EAGAIN && errno != EACCES) || left == 0) {
            return -1;
        }
        nanosleep(&pause_between_tries, nullptr);
    }
    return 0;
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

struct survey {
    uint64_t bytes = 0;       // of all live buffers
    uint32_t lowest_free = 0; // 0: none
};

void add_to_survey(int file, uint32_t number, const record& entry, survey* result)
{
    // Querying a lock costs a system call, so a cleared record is queried only when it is wanted.
    const bool may_be_held = entry.owner != 0 || result->lowest_free == 0;
    if (may_be_held && is_held(file, number)) {
        result->bytes = saturating_add(result->bytes, entry.bytes);
    } else if (result->lowest_free == 0) {
        result->lowest_free = number;
    }
}

// Reads every record up to the end of the file; the first one after it is free, too.
int take_survey(int file, survey* result)
{
    std::array<record, records_at_once> records;
    for (uint32_t number = 1; number <= max_buffers; number += records_at_once) {
        const ssize_t got = pread_fully(file, records.data(), sizeof records, offset_of(number));
        if (got < 0) {
            return -1;
        }
        const uint32_t count = std::min(static_cast<uint32_t>(got / ssize_t{sizeof(record)}),
                                        max_buffers + 1 - number);
        for (uint32_t i = 0; i < count; ++i) {
            add_to_survey(file, number + i, records[i], result);
        }
        if (count < records_at_once) {
            const uint32_t end = number + count;
            if (result->lowest_free == 0 && end <= max_buffers) {
                result->lowest_free = end;
            }
            break;
        }
    }
    return 0;
}

bool has_name(int file)
{
    struct stat status = {};
    return fstat(file, &status) != 0 || status.st_nlink > 0;
}

} // namespace

int buffer_registry::open(int folder)
{
    close();
    // O_NONBLOCK: opening must not wait when a FIFO has the name of the file.
    unique_fd file(open_file_at(folder, "registry",
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
    return 0;
}

claim_result buffer_registry::claim(uint64_t bytes, uint64_t limit)
{
    if (number_ != 0) {
        errno = EBUSY;
        return claim_result::FAILED;
    }
    const uint64_t begin = monotonic_clock_us();
    if (begin < look_again_us_) {
        return claim_result::NO_ROOM;
    }
    if (lock_header(file_.get()) != 0) {
        return errno == EAGAIN || errno == EACCES ? claim_result::NO_ROOM : claim_result::FAILED;
    }
    const claim_result result = claim_locked(bytes, limit);
    const int claim_errno = errno;
    set_lock(file_.get(), header_number, F_UNLCK);
    const uint64_t now = monotonic_clock_us();
    const uint64_t rest = std::min((now - begin) * rest_factor, max_rest_us);
    look_again_us_ = result == claim_result::NO_ROOM ? now + rest : 0;
    errno = claim_errno;
    return result;
}

claim_result buffer_registry::claim_locked(uint64_t bytes, uint64_t limit)
{
    if (!has_name(file_.get())) {
        return claim_result::GONE;
    }
    survey found;
    if (check_header(file_.get()) != 0 || take_survey(file_.get(), &found) != 0) {
        return claim_result::FAILED;
    }
    uint64_t sum = 0;
    if (found.lowest_free == 0 || !checked_add(found.bytes, bytes, &sum) || sum > limit) {
        return claim_result::NO_ROOM;
    }
    // An owner that releases its number clears the record before it unlocks it.
    if (set_lock(file_.get(), found.lowest_free, F_WRLCK) != 0) {
        return errno == EAGAIN || errno == EACCES ? claim_result::NO_ROOM : claim_result::FAILED;
    }
    if (write_record(found.lowest_free, bytes, getpid()) != 0) {
        const int write_errno = errno;
        set_lock(file_.get(), found.lowest_free, F_UNLCK);
        errno = write_errno;
        return claim_result::FAILED;
    }
    number_ = found.lowest_free;
    bytes_ = bytes;
    return claim_result::TAKEN;
}

void buffer_registry::release()
{
    if (number_ == 0) {
        return;
    }
    // A record that cannot be cleared is free nevertheless, because it is unlocked.
    write_record(number_, 0, 0);
    set_lock(file_.get(), number_, F_UNLCK);
    number_ = 0;
    bytes_ = 0;
    owner_ = 0;
}

void buffer_registry::close()
{
    file_.reset();
    number_ = 0;
    bytes_ = 0;
    owner_ = 0;
    look_again_us_ = 0;
}

void buffer_registry::note_owner()
{
    if (number_ != 0 && owner_ != getpid()) {
        write_record(number_, bytes_, getpid());
    }
}

int buffer_registry::write_record(uint32_t number, uint64_t bytes, pid_t owner)
{
    const record entry = {bytes, static_cast<uint32_t>(owner), 0};
    if (pwrite_fully(file_.get(), &entry, sizeof entry, offset_of(number)) != 0) {
        return -1;
    }
    owner_ = owner;
    return 0;
}

} // namespace platform
