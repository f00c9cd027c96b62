// A program run from exec to its end or to its ready message, with what that took.
#pragma once

#include <string>
#include <vector>

struct timed_run {
    double wall = 0; // seconds
    double processor = 0;
    double pyramid_wall = 0; // the share of the last mipmaps in it; workers only
    double pyramid_processor = 0;
    double buffer_bytes = 0;      // of the frame buffer, as the worker tells it; workers only
    double private_kilobytes = 0; // memory that is neither shared nor a file's
};

using command = std::vector<std::string>;

// To its end. `private_kilobytes` is the number that it prints, if it prints one.
timed_run run_floor(const command& words);

// A worker, given a status channel, up to its ready message; it is then asked to end. Memory is
// that at the ready message.
timed_run run_worker_to_ready(command words);
