// Measures a program from exec to its end, or to its ready message.
#pragma once

#include <string>
#include <vector>

struct timed_run {
    double wall = 0; // seconds
    double processor = 0;
    double pyramid_wall = 0; // the part of `wall` from the start of the last pyramid; workers only
    double pyramid_processor = 0;
    double private_kilobytes = 0; // private pages of private mappings
};

using command = std::vector<std::string>;

// Runs a program to its end. `private_kilobytes` is the number that it prints, if any.
timed_run run_floor(const command& words);

// Runs a worker with a status channel up to its ready message, and then ends it. Memory is measured
// at the ready message.
timed_run run_worker_to_ready(command words);
