// The item's log: the file "log" in its metadata folder, and "log.old" with what came before it.
// Together they never take more than log_limit, whatever is written.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/standalone/base/unique_fd.h"

namespace platform {

inline constexpr uint64_t log_limit = uint64_t{16} << 20; // bytes of both files

class log_file {
public:
    // Opens the log for appending, mode 0600. False with a reason() when the folder cannot be opened
    // or something else than a file of this user's, with one name only, is in the log's place.
    bool open(const char* folder);
    const std::string& reason() const { return reason_; } // of the last failure, for people
    void close(); // what is missing is noted once more, if there is room by now

    // Makes `fd` refer to the log, now and, as long as nobody has put something else there,
    // whenever a new file is begun: for writers that know only the descriptor. False with a reason()
    // on failure.
    bool mirror_on(int fd);

    bool is_open() const { return static_cast<bool>(fd_); }

    // Appends, after beginning a new file when this one is half of log_limit long or has been
    // removed. What cannot be written is lost; how many bytes that were is noted in the log, on a
    // line of its own, as soon as it takes anything again.
    void append(std::string_view text);

    // Tries to note what is missing without waiting for the next message. At most once a second.
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
    uint64_t lost_ = 0; // bytes, not yet noted
    uint64_t next_look_us_ = 0;
    bool mid_line_ = false; // what was written last does not end a line
};

} // namespace platform
