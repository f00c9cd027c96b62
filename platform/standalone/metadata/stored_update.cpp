// The old file is read and the new one is written part by part. After each part the kernel is asked
// to begin writing it to the disk, so that the sync at the end finds little left to do.
#include "platform/standalone/metadata/stored_update.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/metadata/metadata_text.h"

namespace platform {

namespace {

constexpr size_t part_size = size_t{64} << 10; // bytes read in one step
constexpr int max_attempts = 5;                // when the file changes meanwhile

std::vector<std::string> names_of(const std::vector<pending_file>& files)
{
    std::vector<std::string> names;
    names.reserve(files.size());
    for (const pending_file& file : files) {
        names.push_back(file.name);
    }
    return names;
}

void take_own(std::vector<pending_file>* own, pending_work* work)
{
    for (pending_file& file : *own) {
        if (file) {
            keep_temporaries(file, work);
            work->taken_in.push_back(&file);
        }
    }
}

} // namespace

stored_update::stored_update(const metadata_store& store, item_settings settings,
                             std::vector<pending_file>* own, uint64_t now_us)
    : store_(store), settings_(std::move(settings)), own_(own), began_us_(now_us)
{
}

stored_update::~stored_update()
{
    discard_temporary();
}

update_progress stored_update::step(uint64_t now_us)
{
    try {
        return (this->*stage_)(now_us);
    } catch (const std::exception&) {
        return refuse("out of memory");
    }
}

void stored_update::hurry(uint64_t lock_limit_us, uint64_t now_us)
{
    store_.lock_limit_us = lock_limit_us;
    began_us_ = now_us;
    disk_wait_us_ = 0;
    disk_due_us_ = 0;
}

update_progress stored_update::refuse(const std::string& reason)
{
    discard_temporary();
    refuse_write(store_, cannot_write_metadata, reason, &reason_);
    return update_progress::FAILED;
}

update_progress stored_update::refuse_failed_step()
{
    discard_temporary();
    refuse_step(store_, failure_, &reason_);
    return update_progress::FAILED;
}

void stored_update::discard_temporary()
{
    if (!temporary_.empty()) {
        (void)store_.operations->unlink_at(store_.folder, temporary_.c_str());
        temporary_.clear();
    }
    new_file_.reset();
}

update_progress stored_update::take_lock(uint64_t now_us)
{
    switch (lock_.take(store_.folder, metadata_lock_name, 0)) {
    case lock_result::TAKEN:
        stage_ = &stored_update::begin_text;
        return update_progress::WORKED;
    case lock_result::BUSY:
        return now_us - began_us_ < store_.lock_limit_us ? update_progress::WAITS
                                                         : refuse("another process holds its lock");
    case lock_result::FAILED:
        break;
    }
    return refuse("its lock cannot be taken: " + error_text(errno));
}

// --- the text ------------------------------------------------------------------------------------

// The settings that dead processes left are merged first, in their order.
void stored_update::take_abandoned()
{
    others_ = find_pending(store_, names_of(*own_));
    work_ = {};
    merged_.clear();
    for (found_pending& found : others_) {
        keep_temporaries(found.file, &work_);
        if (found.abandoned && !leaves_others_) {
            for (auto& [name, value] : found.text.settings) {
                merged_.insert_or_assign(name, std::move(value));
            }
            work_.taken_in.push_back(&found.file);
        }
    }
    for (const auto& [name, value] : settings_) {
        merged_.insert_or_assign(name, value);
    }
    take_own(own_, &work_);
}

// False with errno, or with 0 when a reason has been given.
bool stored_update::open_old_text()
{
    old_file_.reset(open_file_at(store_.folder, metadata_file_name,
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    old_state_ = {};
    struct stat status = {};
    if (!old_file_) {
        return errno == ENOENT;
    }
    if (fstat(old_file_.get(), &status) != 0) {
        return false;
    }
    old_state_ = identity_of(status);
    errno = 0;
    reason_ = !S_ISREG(status.st_mode) ? "not a regular file" : "the file is too large";
    return S_ISREG(status.st_mode) && static_cast<uint64_t>(status.st_size) <= max_metadata_file;
}

update_progress stored_update::begin_text(uint64_t /*now_us*/)
{
    take_abandoned();
    for (const auto& [name, value] : merged_) {
        if (!may_be_entry(name, value)) {
            return refuse("an entry is too large or holds a NUL");
        }
    }
    if (!open_old_text()) {
        const bool not_a_file = errno == ELOOP || errno == ENXIO;
        return refuse(errno == 0 ? reason_ : not_a_file ? "not a regular file" : error_text(errno));
    }
    merge_ = std::make_unique<text_merge>(merged_);
    unread_.clear();
    unwritten_.clear();
    written_ = 0;
    remove_temporary_files(store_.folder, metadata_file_name, *store_.operations, work_.kept);
    new_file_.reset(create_temporary(store_.folder, metadata_file_name, new_metadata_mode,
                                     &temporary_, &failure_, *store_.operations));
    if (!new_file_) {
        temporary_.clear();
        return refuse_failed_step();
    }
    stage_ = &stored_update::copy_part;
    return update_progress::WORKED;
}

// Merges the complete lines that have been read; at the end also the last one, which may lack its
// newline. False, with the reason, when one is damaged.
bool stored_update::take_lines(bool at_end)
{
    std::string_view rest = unread_;
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        if (end == std::string_view::npos && !at_end) {
            break;
        }
        if (const char* wrong = merge_->take_line(rest.substr(0, end), &unwritten_)) {
            reason_ = "line " + std::to_string(merge_->lines()) + ": " + wrong;
            return false;
        }
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    unread_.erase(0, unread_.size() - rest.size());
    return true;
}

// False when the write fails.
bool stored_update::write_part()
{
    if (append_contents(new_file_.get(), unwritten_, &failure_, *store_.operations) != 0) {
        return false;
    }
    // Only a request: an error shows when the file is synced.
    (void)sync_file_range(new_file_.get(), static_cast<off64_t>(written_),
                          static_cast<off64_t>(unwritten_.size()), SYNC_FILE_RANGE_WRITE);
    written_ += unwritten_.size();
    unwritten_.clear();
    return true;
}

update_progress stored_update::copy_part(uint64_t now_us)
{
    const size_t before = unread_.size();
    unread_.resize(before + part_size);
    const ssize_t size =
        old_file_ ? read_fully(old_file_.get(), unread_.data() + before, part_size) : 0;
    unread_.resize(before + static_cast<size_t>(std::max<ssize_t>(size, 0)));
    if (size < 0) {
        return refuse(error_text(errno));
    }
    const bool at_end = static_cast<size_t>(size) < part_size;
    if (!take_lines(at_end)) {
        return refuse(reason_);
    }
    if (at_end) {
        return end_text(now_us);
    }
    if (written_ + unwritten_.size() > max_metadata_file) {
        return refuse_size(now_us);
    }
    return write_part() ? update_progress::WORKED : refuse_failed_step();
}

update_progress stored_update::end_text(uint64_t now_us)
{
    struct stat status = {};
    if (old_file_ &&
        (fstat(old_file_.get(), &status) != 0 || !identity_of(status).same_contents(old_state_))) {
        return again(now_us);
    }
    if (const char* wrong = merge_->take_end(!old_file_, &unwritten_)) {
        return refuse(wrong);
    }
    if (written_ + unwritten_.size() > max_metadata_file) {
        return refuse_size(now_us);
    }
    if (!merge_->changed()) {
        discard_temporary();
        remove_taken_in(store_, work_);
        return update_progress::DONE;
    }
    disk_due_us_ = written_ > 0 ? now_us + disk_wait_us_ : now_us;
    stage_ = &stored_update::wait_for_disk;
    return write_part() ? update_progress::WORKED : refuse_failed_step();
}

// What dead processes left must not prevent that others are stored.
update_progress stored_update::refuse_size(uint64_t now_us)
{
    const auto abandoned = std::find_if(others_.begin(), others_.end(),
                                        [](const auto& found) { return found.abandoned; });
    if (leaves_others_ || abandoned == others_.end()) {
        return refuse("it would become too large");
    }
    leaves_others_ = true;
    error_line("Cannot take over all pending metadata", store_.path, abandoned->file.name);
    return again(now_us);
}

// Begins again with a file that was written or replaced meanwhile.
update_progress stored_update::again(uint64_t /*now_us*/)
{
    if (++attempts_ == max_attempts) {
        return refuse("it keeps changing while it is read");
    }
    discard_temporary();
    stage_ = &stored_update::begin_text;
    return update_progress::WORKED;
}

// --- the disk ------------------------------------------------------------------------------------

update_progress stored_update::wait_for_disk(uint64_t now_us)
{
    if (now_us < disk_due_us_) {
        return update_progress::WAITS;
    }
    stage_ = &stored_update::sync_text;
    return update_progress::WORKED;
}

update_progress stored_update::sync_text(uint64_t /*now_us*/)
{
    if (complete_temporary(store_.folder, metadata_file_name, new_file_.get(), &failure_,
                           *store_.operations) != 0) {
        return refuse_failed_step();
    }
    new_file_.reset();
    stage_ = &stored_update::put_text_in_place;
    return update_progress::WORKED;
}

update_progress stored_update::put_text_in_place(uint64_t now_us)
{
    if (identity_at(store_.folder, metadata_file_name) != old_state_) {
        return again(now_us);
    }
    // From here on the temporary file is removed only where that loses nothing.
    const std::string temporary = std::exchange(temporary_, {});
    if (place_temporary(store_, temporary, work_, &failure_) != 0) {
        return refuse_failed_step();
    }
    remove_taken_in(store_, work_);
    return update_progress::DONE;
}

} // namespace platform
