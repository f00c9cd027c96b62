#include "platform/standalone/item/serve_lock.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "platform/run_state.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/file_lock.h"
#include "platform/standalone/base/file_operations.h"
#include "platform/standalone/base/private_file.h"

namespace platform {

namespace {

constexpr uint64_t patience_us = 300'000;

file_lock lock{lock_file_kind::PRIVATE_FILE};
unique_fd lock_folder; // of the lock file
std::string lock_name; // in it
pid_t owner = 0;       // the process whose id is in the file
// Set by a handler of the C library's fork(), also within daemon(), because asking the kernel for
// the process id in every idle round costs as much as the rest of the round.
bool maybe_another_process = true;

bool forks_are_noted()
{
    static const bool noted =
        pthread_atfork(nullptr, nullptr, [] { maybe_another_process = true; }) == 0;
    return noted;
}

// The process id in the lock file of another worker, 0 when it has not been written yet.
int holder_of(const std::string& path)
{
    char text[16] = "";
    const unique_fd fd(open_file(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
    const ssize_t size = fd ? pread_fully(fd.get(), text, sizeof text, 0) : 0;
    int number = 0;
    std::from_chars(text, text + (size > 0 ? size : 0), number);
    return number;
}

std::string reason_for_no_lock(int error_number)
{
    return lock.refusal()[0] != '\0' ? lock.refusal() : reason_for_no_private_file(error_number);
}

std::string served_by(int holder)
{
    return holder > 0 ? "already served by process " + std::to_string(holder)
                      : "already served by another process";
}

} // namespace

bool take_serve_lock(const std::string& socket_path)
{
    const std::string path = socket_path + lock_suffix;
    const size_t slash = path.rfind('/');
    unique_fd folder(open_file(path.substr(0, slash + 1).c_str(), O_PATH | O_DIRECTORY));
    if (!folder) {
        error_line("Cannot lock socket", path, errno);
        return false;
    }
    switch (lock.take(folder.get(), path.substr(slash + 1).c_str(), patience_us, &DIE4)) {
    case lock_result::TAKEN:
        break;
    case lock_result::BUSY:
        error_line("Socket", socket_path, served_by(holder_of(path)));
        return false;
    case lock_result::FAILED:
        error_line("Cannot lock socket", path, reason_for_no_lock(errno));
        return false;
    }
    lock_folder = std::move(folder);
    lock_name = path.substr(slash + 1);
    maybe_another_process = true;
    refresh_serve_lock();
    static const bool at_exit = atexit(release_serve_lock) == 0;
    static_cast<void>(at_exit);
    return true;
}

lock_file_place serve_lock_file()
{
    return {lock_folder.get(), lock_name};
}

void refresh_serve_lock()
{
    if (!lock.held() || !maybe_another_process) {
        return;
    }
    maybe_another_process = !forks_are_noted();
    if (owner == getpid()) {
        return;
    }
    owner = getpid();
    const std::string text = std::to_string(owner) + '\n';
    // The id is only for information: the lock works without it.
    if (ftruncate(lock.fd(), 0) == 0) {
        pwrite_fully(lock.fd(), text.data(), text.size(), 0);
    }
}

void release_serve_lock()
{
    if (!lock.held()) {
        return;
    }
    if (owner == getpid()) {
        if (lock.is_named(lock_folder.get(), lock_name.c_str())) {
            system_file_operations.unlink_at(lock_folder.get(), lock_name.c_str());
        }
        lock.release();
    } else {
        lock = file_lock(lock_file_kind::PRIVATE_FILE); // the owner keeps it
    }
    lock_folder.reset();
    lock_name.clear();
    owner = 0;
}

} // namespace platform
