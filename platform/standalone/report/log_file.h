// The item's log: the file "log" in its metadata folder, and "log.old" with the earlier messages.
// Together they never exceed log_limit, whatever is written.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace platform {

inline constexpr uint64_t log_limit = uint64_t{16} << 20; // bytes of both files

inline constexpr const char* log_name = "log";
inline constexpr const char* old_log_name = "log.old";

class log_file {
public:
    // Opens the log for appending, mode 0600. False with a reason() when the folder cannot be
    // opened, or when the log's name belongs to something other than a regular file of this user
    // with only one name.
    bool open(const char* folder);
    const std::string& reason() const { return reason_; } // of the last failure, for people
    void close(); // records a loss that is not recorded yet, if there is room by now

    // Makes `fd` refer to the log, now and whenever a new file is begun, unless `fd` has been
    // redirected meanwhile. For writers that know only the descriptor. False with a reason() on
    // failure.
    bool mirror_on(int fd);

    // The folder, which rotating the log uses; -1 while the log is closed.
    int folder() const { return folder_.get(); }

    bool is_open() const { return static_cast<bool>(fd_); }

    // Appends; begins a new file first when this one has reached half of log_limit or has been
    // removed. Text that cannot be written is lost. The number of lost bytes is recorded in the
    // log, on a line of its own, as soon as writing works again.
    void append(std::string_view text);

    // Tries to record a loss without waiting for the next message. At most once a second.
    void look_for_room(uint64_t now_us);

private:
    bool refuse(std::string reason);
    bool open_in_folder();
    bool has_room(uint64_t size) const;
    bool begin_new_file();
    bool write_rest(std::string_view* text);
    bool note_loss();

    unique_fd folder_;
    unique_fd fd_;
    std::string reason_;
    int mirror_ = -1;
    uint64_t lost_ = 0; // bytes, not yet recorded
    uint64_t next_look_us_ = 0;
    bool mid_line_ = false; // the last write did not end a line
};

} // namespace platform
