// The calls of stillimage-client, one function each. The short ones are in calls.cpp, the others in
// files of their names.
#pragma once

#include <cstdint>
#include <string>

enum exit_status : int {
    STATUS_DONE = 0,
    STATUS_FAILED = 1,
    STATUS_USAGE = 2,
    STATUS_NO_WORKER = 3,
    STATUS_TIME_LIMIT = 4,
    STATUS_REFUSED = 5,
};

// The parsed command line. A call reads the fields that its help names.
struct call_options {
    std::string socket_or_picture;
    int timeout_ms = -1;
    uint64_t time_position = 0;
    int32_t wanted_width = 0; // 0 x 0: full size
    int32_t wanted_height = 0;
    bool no_wait = false;
    bool watch = false;
    uint64_t loops = 0;     // 0: endless
    std::string frame_rate; // "": the rate that the timeline needs
    bool no_pace = false;
    std::string output; // file or folder
    std::string name;
    std::string value;
};

exit_status call_wait(const call_options& options);
exit_status call_status(const call_options& options);
exit_status call_frame(const call_options& options);
exit_status call_save(const call_options& options);
exit_status call_dump(const call_options& options);
exit_status call_play(const call_options& options);
exit_status call_sheet(const call_options& options);
exit_status call_set(const call_options& options);
exit_status call_quit(const call_options& options);
