// The worker's end of a connection, in a thread of the test: answers by a script, well or badly.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <thread>

#include "platform/comm_protocol.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/client/frame_sample.h"

// One accepted connection.
class fake_peer {
public:
    explicit fake_peer(int fd) : fd_(fd) {}
    fake_peer(const fake_peer&) = delete;
    fake_peer& operator=(const fake_peer&) = delete;
    ~fake_peer();

    // The next request's header; type 0 once the client has gone.
    comm_protocol::packet_header next();
    // The next request of that type, others passed over (releases, sizes are answered with DONE).
    comm_protocol::packet_header next(comm_protocol::packet_type type);

    bool send(const comm_protocol::packet_bytes& packet) const;
    bool send_with_descriptor(const comm_protocol::packet_bytes& packet, int descriptor) const;

    void greet(); // answers HELLO
    // Answers the next GET_FRAME with the sample's frame, the descriptor along with it.
    void serve_frame(const frame_sample& sample, int descriptor);
    void hang_up();
    void await_end(); // until the client hangs up

    comm_protocol::packet_bytes request; // the newest, whole

private:
    int fd_;
};

class fake_worker {
public:
    // Serves one connection after the other, `script` for each.
    explicit fake_worker(std::function<void(fake_peer&)> script);
    fake_worker(const fake_worker&) = delete;
    fake_worker& operator=(const fake_worker&) = delete;
    ~fake_worker();

    const std::string& path() const { return path_; }

    // From now on the peer that clients see is a process of this user, and clients of any user may
    // connect. Needs the superuser's rights; false when that could not be done.
    bool belong_to(uid_t user) const;

private:
    void serve();

    std::function<void(fake_peer&)> script_;
    temporary_folder folder_;
    std::string path_;
    int listener_ = -1;
    std::thread thread_;
};

// A memfd with these bytes, sealed as the worker's buffer is. The caller closes it.
int sealed_memory(const std::vector<unsigned char>& bytes);
int unsealed_memory(const std::vector<unsigned char>& bytes);

size_t open_descriptors();
