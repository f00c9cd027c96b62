#include "platform/standalone/report/log_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/file_operations.h"
#include "platform/standalone/base/folders.h"
#include "platform/standalone/base/private_file.h"

namespace platform {

namespace {

bool is_same_file(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

bool log_file::open(const char* folder)
{
    folder_ = open_folder(folder);
    return folder_ ? open_in_folder() : refuse(error_text(errno));
}

bool log_file::refuse(std::string reason)
{
    reason_ = std::move(reason);
    return false;
}

void log_file::close()
{
    if (is_open()) {
        note_loss();
    }
    lost_ = 0;
    mid_line_ = false;
    fd_.reset();
    folder_.reset();
    mirror_ = -1;
}

bool log_file::mirror_on(int fd)
{
    if (dup2(fd_.get(), fd) < 0) {
        return refuse(error_text(errno));
    }
    mirror_ = fd;
    return true;
}

bool log_file::open_in_folder()
{
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT;
    unique_fd fd(open_file_at(folder_.get(), log_name, flags | private_file_flags, 0600));
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0) {
        return refuse(reason_for_no_private_file(errno));
    }
    const char* reason = reason_against_file(status);
    if (reason[0] != '\0') {
        return refuse(reason);
    }
    // A new file has this mode already; a confined process cannot change it.
    if ((status.st_mode & 07777U) != 0600 && fchmod(fd.get(), 0600) != 0) {
        return refuse(error_text(errno));
    }
    fd_ = std::move(fd);
    mid_line_ = false;
    return true;
}

// Asks the kernel for the size instead of counting: an identify-only run may write to the same log.
bool log_file::has_room(uint64_t size) const
{
    struct stat status = {};
    return fstat(fd_.get(), &status) == 0 && status.st_nlink > 0 &&
           static_cast<uint64_t>(status.st_size) + size <= log_limit / 2;
}

bool log_file::begin_new_file()
{
    struct stat ours = {};
    struct stat named = {};
    struct stat mirrored = {};
    if (fstat(fd_.get(), &ours) != 0) {
        return false;
    }
    const bool still_named = fstatat(folder_.get(), log_name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
                             is_same_file(ours, named);
    if (still_named &&
        system_file_operations.rename_at(folder_.get(), log_name, old_log_name) != 0) {
        return false;
    }
    const bool mirror_is_ours =
        mirror_ >= 0 && fstat(mirror_, &mirrored) == 0 && is_same_file(ours, mirrored);
    if (!open_in_folder()) {
        return false;
    }
    if (mirror_is_ours) {
        dup2(fd_.get(), mirror_);
    }
    return true;
}

// Removes what was written from the beginning of the text. True when that was all of it.
bool log_file::write_rest(std::string_view* text)
{
    if (!has_room(text->size()) && (!begin_new_file() || !has_room(text->size()))) {
        return false;
    }
    while (!text->empty()) {
        const ssize_t written = write_some(fd_.get(), text->data(), text->size());
        if (written <= 0) {
            return false;
        }
        mid_line_ = (*text)[static_cast<size_t>(written) - 1] != '\n';
        text->remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

// True when nothing is missing, or when the loss is recorded.
bool log_file::note_loss()
{
    if (lost_ == 0) {
        return true;
    }
    const std::string note = std::string(mid_line_ ? "\n" : "") + "[" + std::to_string(lost_) +
                             " bytes of messages could not be written and are lost]\n";
    std::string_view rest = note;
    if (!write_rest(&rest)) {
        return false;
    }
    lost_ = 0;
    return true;
}

void log_file::look_for_room(uint64_t now_us)
{
    constexpr uint64_t gap_us = 1'000'000;
    if (lost_ > 0 && is_open() && now_us >= next_look_us_) {
        next_look_us_ = now_us + gap_us;
        note_loss();
    }
}

void log_file::append(std::string_view text)
{
    if (!note_loss() || !write_rest(&text)) {
        lost_ += text.size();
    }
}

} // namespace platform
