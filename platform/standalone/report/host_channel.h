// The host's status channel: one JSON object per line, on a descriptor that the host has opened.
// Lines and their order: docs/status.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace platform {

class host_channel {
public:
    // Duplicates `fd`. False with errno when it is not open for writing.
    bool open(int fd);
    void close();
    bool is_open() const { return static_cast<bool>(fd_); }
    bool is_file() const { return is_open() && is_file_; }

    // Queue a line and write as much as possible; `now_us` is the monotonic time. Texts are
    // printable, at most 512 bytes. While the host does not read, or its disk is full, the newest
    // line of each kind stays queued: progress, refusal (percent -1), provisional, ready.
    void report_progress(int percent, std::string_view text, uint64_t now_us);
    void report_ready(int state, std::string_view text, uint64_t now_us);

    bool has_waiting() const { return !waiting_.empty(); }

    // Writes queued lines as far as the host accepts them, but not within a second after a failed
    // write. Never blocks. When the host has closed its end, the channel is closed.
    void flush(uint64_t now_us);

    // Makes a last attempt, regardless of earlier failures, then closes the channel.
    void finish();

private:
    enum class line_kind { PROGRESS, REFUSAL, PROVISIONAL, FINAL };

    struct waiting_line {
        std::string text;
        line_kind kind;
    };

    void queue(std::string line, line_kind kind, uint64_t now_us);
    void write_waiting(uint64_t now_us);
    bool write_first();
    bool write_failed();

    unique_fd fd_;
    bool is_socket_ = false;
    bool is_file_ = false;
    size_t written_ = 0; // bytes of the first queued line that are already written
    std::list<waiting_line> waiting_;
    bool failed_ = false;      // the last attempt failed with an error that may pass
    uint64_t next_try_us_ = 0; // after it
};

} // namespace platform
