// The service manager's socket, named by NOTIFY_SOCKET in the environment: READY, STATUS and
// STOPPING. When each is sent: docs/status.md.
#pragma once

#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace platform {

class notify_socket {
public:
    // Connects to the address: a path, or '@' and an abstract name. False when there is none, when
    // it is invalid or when nobody receives there; all other calls then do nothing.
    bool open(const char* address);
    void close();
    bool is_open() const { return static_cast<bool>(fd_); }
    int descriptor() const { return fd_.get(); }

    // Queue the next notification; texts are printable. Nothing blocks: what the manager cannot
    // receive waits for the next flush, and a newer status replaces an older one. A manager that
    // has ended makes no difference.
    void queue_status(std::string_view text);
    void queue_ready(std::string_view text);
    void queue_stopping();
    void flush();

private:
    std::string message() const;

    unique_fd fd_;
    std::string status_; // waiting; empty: none
    bool ready_ = false; // waiting
    bool stopping_ = false;
};

} // namespace platform
