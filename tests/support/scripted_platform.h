// A platform for tests and fuzzers of bin/: implements every declaration of platform/*.h in plain
// memory, records the program's calls, and fails on demand. A test calls scripted::reset() first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace scripted {

struct status_line {
    int percent;
    std::string text;
    bool operator==(const status_line&) const = default;
};

// What the platform does. A counter counts down with each call and takes effect when it reaches 0;
// 0 from the start: never.
struct script {
    // start-up
    bool init_argv_fails = false;
    bool derived_params_fail = false;
    bool join_domain_fails = false;
    bool redirect_fails = false;
    bool self_test_fails = false;
    bool confinement_is_refused = false;
    bool no_metadir = false;
    bool no_sock = false;
    bool no_meta = false;
    bool no_metadata = false;
    // the picture and its metadata
    bool file_handle_fails = false;
    bool window_fails = false; // sliding_window_v4_create_mmap returns null
    bool guid_is_new = false;
    bool metadata_write_fails = false;
    // the buffer
    bool cache_creation_fails = false;
    int buffer_loads_until_ready = 0; // cnb_default_buffer_load returns "not yet" that often
    bool allocation_fails = false;
    bool signal_in_allocation = false;             // cnb_malloc receives a signal and fails
    uint64_t allocation_limit = UINT64_C(1) << 32; // larger requests are refused
    int fail_mapping = 0;                          // the n-th mapping request fails
    // A range that cannot be mapped: requests that touch [first, first + second).
    std::pair<uint64_t, uint64_t> unmappable = {0, 0};
    // idle work
    int die_after_idle = 0;        // the n-th idle_vexa_server_comm() delivers a signal (DIE4)
    int exit_after_idle = 0;       // ... sets vexa_should_exit
    int comm_work = 0;             // result of idle_vexa_server_comm()
    int client_work = 0;           // result of idle_vexa_client_contexts()
    std::function<void()> on_idle; // called in each idle_vexa_server_comm()
    std::function<void()> on_client_idle; // called in each idle_vexa_client_contexts()
    uint64_t clock_step_us = 0;           // each reading advances the clock by this
};

// What the program did.
struct record {
    std::vector<std::string> calls; // names of life-cycle calls, in order
    std::vector<status_line> status;
    std::vector<status_line> ready; // state and text
    uint64_t mappings = 0;          // mapping requests, refused ones included
    uint64_t idle_rounds = 0;
    uint64_t metadata_writes = 0;
    uint64_t rebuilds = 0; // rebuild_json
    std::vector<uint64_t> wait_deadlines;
    std::vector<std::string> written_entries; // "name=value" of the last metadata write
};

extern script plan;
extern record log;

// Resets everything to the values at program start, including the program's shared variables.
void reset();

// Makes `bytes` the picture that vexa_meta provides, as a memfd.
void set_picture(const void* bytes, size_t size);
void set_picture(const std::vector<unsigned char>& bytes);
void set_picture_descriptor(int fd); // takes the descriptor over

void set_time(uint64_t now_us);
int open_picture_handles(); // number of successful calls of get_file_handle

// The frame buffer: `size` bytes that end at a guard page. Null before cnb_malloc.
unsigned char* buffer();
uint64_t buffer_size();

// Allocates the buffer at once, for tests that do not run the whole sequence. Sets
// image_cnb_buffer, image_cnb_buffer_fd and vexa_acc_cache.
void provide_buffer(uint64_t size, unsigned char fill = 0);

} // namespace scripted
