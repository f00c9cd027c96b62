// Sets entries of the item in the metadata file, and keeps everything else in it as another process
// may have written it: under the lock, the file is copied with the new entries and replaced.
// Nothing is written when nothing changes. Settings that dead processes left in pending files are
// merged first. A damaged file is left for the next start to set aside.
//
// This is done in steps, so that a process with one thread does other work in between. No step
// takes longer than copying a small part of the file, or than one sync of it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "platform/standalone/base/file_lock.h"
#include "platform/standalone/metadata/file_identity.h"
#include "platform/standalone/metadata/merge_text.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/pending_files.h"
#include "platform/standalone/metadata/replace_stored.h"

namespace platform {

enum class update_progress {
    WORKED, // a step is done
    WAITS,  // for the lock or the disk; nothing to do yet
    DONE,   // the settings are in the metadata file, and the pending files are removed
    FAILED, // after a message; the old file and the pending files are unchanged
};

class stored_update {
public:
    // `own` are this process's pending files that contain these settings and no others; they are
    // not appended to meanwhile, and outlive the object.
    stored_update(const metadata_store& store, item_settings settings,
                  std::vector<pending_file>* own, uint64_t now_us);
    stored_update(const stored_update&) = delete;
    stored_update& operator=(const stored_update&) = delete;
    ~stored_update(); // gives up: nothing has changed unless it is DONE

    update_progress step(uint64_t now_us);

    // Waits no longer than this for the lock from now on, and not at all for the disk. For the end
    // of the process.
    void hurry(uint64_t lock_limit_us, uint64_t now_us);

    // Why it has failed.
    const std::string& reason() const { return reason_; }

private:
    using stage = update_progress (stored_update::*)(uint64_t now_us);

    update_progress take_lock(uint64_t now_us);
    update_progress begin_text(uint64_t now_us);
    update_progress copy_part(uint64_t now_us);
    update_progress wait_for_disk(uint64_t now_us);
    update_progress sync_text(uint64_t now_us);
    update_progress put_text_in_place(uint64_t now_us);

    bool open_old_text();
    bool take_lines(bool at_end);
    bool write_part();
    update_progress end_text(uint64_t now_us);
    update_progress refuse_size(uint64_t now_us);
    update_progress again(uint64_t now_us);
    update_progress refuse(const std::string& reason);
    update_progress refuse_failed_step();
    void take_abandoned();
    void discard_temporary();

    metadata_store store_;
    item_settings settings_;
    std::vector<pending_file>* own_;
    stage stage_ = &stored_update::take_lock;
    std::string reason_;
    uint64_t began_us_;
    int attempts_ = 0;
    bool leaves_others_ = false; // what dead processes left does not fit into the file

    file_lock lock_;
    std::vector<found_pending> others_; // pending files of other processes
    pending_work work_;
    std::unique_ptr<text_merge> merge_;
    item_settings merged_; // of dead processes, and these

    unique_fd old_file_;
    file_identity old_state_;
    std::string unread_; // read, but not yet merged: an incomplete line
    unique_fd new_file_;
    std::string temporary_; // its name; empty: none
    std::string unwritten_; // merged, but not yet written
    uint64_t written_ = 0;
    uint64_t disk_wait_us_ = 100'000; // between the last part of a large file and its sync
    uint64_t disk_due_us_ = 0;
    replace_failure failure_;
};

} // namespace platform
