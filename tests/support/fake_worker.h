// The worker's end of a connection: a thread of the test that answers by a script, correctly or
// not.
#pragma once

#include <fcntl.h>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <thread>

#include "tests/support/frame_sample.h"
#include "tests/support/temporary_folder.h"
#include "wire/protocol.h"

// One accepted connection.
class fake_peer {
public:
    explicit fake_peer(int fd) : fd_(fd) {}
    fake_peer(const fake_peer&) = delete;
    fake_peer& operator=(const fake_peer&) = delete;
    ~fake_peer();

    // The header of the next request; type 0 once the client has disconnected.
    comm_protocol::packet_header next();
    // The next request of that type. Skips others; skipped releases and sizes are answered with
    // DONE.
    comm_protocol::packet_header next(comm_protocol::packet_type type);

    bool send(const comm_protocol::packet_bytes& packet) const;
    bool send_with_descriptor(const comm_protocol::packet_bytes& packet, int descriptor) const;

    void greet(); // answers HELLO
    // Answers the next GET_FRAME with the sample's frame and this descriptor.
    void serve_frame(const frame_sample& sample, int descriptor);
    void hang_up();
    void await_end(); // returns when the client disconnects

    comm_protocol::packet_bytes request; // the latest one, with its header

private:
    int fd_;
};

class fake_worker {
public:
    // Serves one connection after another with `script`.
    explicit fake_worker(std::function<void(fake_peer&)> script);
    fake_worker(const fake_worker&) = delete;
    fake_worker& operator=(const fake_worker&) = delete;
    ~fake_worker();

    const std::string& path() const { return path_; }

    // From now on clients see a process of this user as their peer, and clients of any user may
    // connect. Needs superuser rights; false on failure.
    bool belong_to(uid_t user) const;

private:
    void serve();

    std::function<void(fake_peer&)> script_;
    temporary_folder folder_;
    std::string path_;
    int listener_ = -1;
    std::thread thread_;
};

// A memfd with these bytes, sealed like the worker's buffer. The caller closes it.
int sealed_memory(const std::vector<unsigned char>& bytes);
int unsealed_memory(const std::vector<unsigned char>& bytes);

// The seals of a worker's buffer.
inline constexpr int size_seals = F_SEAL_SHRINK | F_SEAL_GROW;
inline constexpr int worker_seals = size_seals | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL;

// An empty memfd of this size, which has no memory yet.
int sparse_memory(uint64_t size);

// Adds the seals and returns the descriptor.
int with_seals(int fd, int seals);
