// The registry of the domain, through the descriptor that the worker has of it.
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "tests/attack/attack.h"

namespace attack {

namespace {

constexpr int all_descriptors = 64;

// The descriptor of the file at the path, -1 when there is none.
int descriptor_of(const std::string& path)
{
    struct stat wanted = {};
    if (stat(path.c_str(), &wanted) != 0) {
        return -1;
    }
    for (int fd = 0; fd < all_descriptors; ++fd) {
        struct stat found = {};
        if (fstat(fd, &found) == 0 && found.st_ino == wanted.st_ino &&
            found.st_dev == wanted.st_dev) {
            return fd;
        }
    }
    return -1;
}

struct flock range(off_t first, off_t size)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = first;
    lock.l_len = size;
    return lock;
}

// Locks what it can get, in every way that the kernel offers; 0 when it got anything.
int lock_registry(const std::string& path)
{
    int result = EPERM;
    const int opened = open(path.c_str(), O_RDWR | O_CLOEXEC);
    for (const int fd : {descriptor_of(path), dup(descriptor_of(path)), opened}) {
        for (const int command : {F_OFD_SETLK, F_SETLK}) {
            for (off_t record = 0; fd >= 0 && record < 100; ++record) {
                struct flock lock = range(record * 16, 16);
                result = fcntl(fd, command, &lock) == 0 ? 0 : result;
            }
            struct flock all = range(0, 0);
            result = fd >= 0 && fcntl(fd, command, &all) == 0 ? 0 : result;
        }
    }
    return result;
}

using write_call = ssize_t (*)(int fd, const iovec& bytes, off_t offset);

constexpr write_call writers[] = {
    [](int fd, const iovec& bytes, off_t offset) {
        return pwrite(fd, bytes.iov_base, bytes.iov_len, offset);
    },
    [](int fd, const iovec& bytes, off_t offset) { return pwritev(fd, &bytes, 1, offset); },
    [](int fd, const iovec& bytes, off_t offset) { return pwritev2(fd, &bytes, 1, offset, 0); },
    [](int fd, const iovec& bytes, off_t offset) {
        lseek(fd, offset, SEEK_SET);
        return write(fd, bytes.iov_base, bytes.iov_len);
    },
    [](int fd, const iovec& bytes, off_t offset) {
        lseek(fd, offset, SEEK_SET);
        return writev(fd, &bytes, 1);
    },
    [](int fd, const iovec&, off_t offset) -> ssize_t { return ftruncate(fd, offset); },
    [](int fd, const iovec&, off_t) -> ssize_t { return fallocate(fd, 0, 0, 1 << 24); },
    [](int fd, const iovec&, off_t offset) -> ssize_t {
        return copy_file_range(fd, nullptr, fd, &offset, 16, 0);
    },
    [](int fd, const iovec&, off_t) -> ssize_t { return fchmod(fd, 0); },
};

// Writes where others read: the header, records of others, a piece of its own and the next one.
int write_registry(const std::string& path)
{
    char claim[17] = "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F";
    const int opened = open(path.c_str(), O_RDWR | O_CLOEXEC);
    int result = EPERM;
    for (const int fd : {descriptor_of(path), dup(descriptor_of(path)), opened}) {
        for (off_t record = 0; fd >= 0 && record < 100; ++record) {
            for (const write_call write : writers) {
                // The worker's own record may be written as a whole; see the test.
                result = write(fd, {claim, 17}, record * 16) >= 0 ? 0 : result;
            }
        }
        void* mapped =
            fd < 0 ? MAP_FAILED : mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        result = mapped != MAP_FAILED ? 0 : result;
    }
    return result;
}

// Claims more than any buffer can have; the record is the worker's own, and so it may.
int claim_everything(const std::string& path)
{
    const uint64_t claim[2] = {UINT64_MAX, static_cast<uint64_t>(getpid())};
    int written = 0;
    for (off_t record = 0; record < 100; ++record) {
        written += pwrite(descriptor_of(path), claim, sizeof claim, record * 16) > 0 ? 1 : 0;
    }
    return written == 0 ? EPERM : written == 1 ? 0 : E2BIG;
}

constexpr attempt attempts[] = {
    {"lock_registry", lock_registry},
    {"write_registry", write_registry},
    {"claim_everything", claim_everything},
};

} // namespace

std::span<const attempt> registry_attempts()
{
    return attempts;
}

} // namespace attack
