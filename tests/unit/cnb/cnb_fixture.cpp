#include "tests/unit/cnb/cnb_fixture.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/standalone/cnb/domain.h"

namespace cnb_test {

failing_kernel failing;

namespace {

int fail(int error_number)
{
    errno = error_number;
    return -1;
}

int create(const char* name, unsigned flags)
{
    if (failing.create_errno != 0) {
        return fail(failing.create_errno);
    }
    constexpr unsigned noexec_seal = 8;
    if (!failing.create_knows_noexec && (flags & noexec_seal) != 0) {
        return fail(EINVAL);
    }
    return platform::system_kernel_calls.create_memory_file(name, flags);
}

int allocate(int fd, off_t offset, off_t length)
{
    const auto bytes = static_cast<uint64_t>(length);
    if (failing.allocate_errno != 0 && failing.allocations >= failing.allocate_from) {
        return fail(failing.allocate_errno);
    }
    if (bytes > failing.max_uninterrupted) {
        return fail(EINTR);
    }
    ++failing.allocations;
    failing.min_allocation = std::min(failing.min_allocation, bytes);
    return platform::system_kernel_calls.allocate(fd, offset, length);
}

void* map(size_t length, int fd)
{
    if (failing.map_errno != 0) {
        errno = failing.map_errno;
        return MAP_FAILED;
    }
    return platform::system_kernel_calls.map(length, fd);
}

int advise(void* address, size_t length, int advice)
{
    constexpr int populate_write = 23;
    if (advice == populate_write) {
        ++failing.populated_pieces;
        failing.populated_bytes += length;
        failing.max_populated = std::max(failing.max_populated, uint64_t{length});
        if (failing.advise_errno != 0) {
            return fail(failing.advise_errno);
        }
    }
    return platform::system_kernel_calls.advise(address, length, advice);
}

int change_mode(int fd, mode_t mode)
{
    if (failing.mode_errno != 0) {
        return fail(failing.mode_errno);
    }
    return platform::system_kernel_calls.change_mode(fd, mode);
}

int add_seals(int fd, int seals)
{
    if (failing.seal_errno != 0) {
        return fail(failing.seal_errno);
    }
    if (!failing.seal_knows_future_write && (seals & F_SEAL_FUTURE_WRITE) != 0) {
        return fail(EINVAL);
    }
    return platform::system_kernel_calls.add_seals(fd, seals);
}

int open_read_only(const char* path)
{
    if (failing.open_errno != 0) {
        return fail(failing.open_errno);
    }
    return platform::system_kernel_calls.open_read_only(path);
}

} // namespace

const platform::kernel_calls failing_kernel_calls = {
    .create_memory_file = create,
    .allocate = allocate,
    .map = map,
    .advise = advise,
    .change_mode = change_mode,
    .add_seals = add_seals,
    .open_read_only = open_read_only,
};

cnb::cnb()
{
    platform::reset_cnb();
    failing = {};
    platform::the_machine.kernel = &failing_kernel_calls;
    setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
}

cnb::~cnb()
{
    platform::reset_cnb();
    failing = {};
    unsetenv("XDG_RUNTIME_DIR");
}

void write_file(const std::string& path, const std::string& text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

signal_pipe::signal_pipe()
{
    if (pipe2(ends_, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2");
    }
}

signal_pipe::~signal_pipe()
{
    close(ends_[0]);
    close_giving_end();
}

void signal_pipe::give()
{
    const ssize_t written = write(ends_[1], "x", 1);
    static_cast<void>(written);
}

bool signal_pipe::wait()
{
    char byte = 0;
    ssize_t got = read(ends_[0], &byte, 1);
    while (got < 0 && errno == EINTR) {
        got = read(ends_[0], &byte, 1);
    }
    return got == 1;
}

void signal_pipe::close_giving_end()
{
    if (ends_[1] >= 0) {
        close(ends_[1]);
        ends_[1] = -1;
    }
}

} // namespace cnb_test
