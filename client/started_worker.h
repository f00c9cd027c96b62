// A worker that this process starts: no child of it, in a session of its own, watched by what it has
// to say on standard error until it serves.
#pragma once

#include <string>

#include "client/owned_fd.h"

class started_worker {
public:
    // 0, or the reason as an errno: the program cannot be found or run.
    int start(const std::string& picture);

    // Takes in what the worker has said, for up to `wait_ms`.
    void listen(int wait_ms);

    // Whether listen() has found that the worker has ended.
    bool ended() const { return ended_; }

    // Another worker serves the picture already.
    bool gave_way() const;

    // The worker's last words, in one line.
    std::string last_words() const;

    static std::string program(); // what is started

private:
    owned_fd words_; // read end of the worker's standard error
    std::string said_;
    bool ended_ = false;
};
