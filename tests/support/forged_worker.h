// A hostile worker: it serves the protocol and a picture as a real one does, but for one lie. What
// is tested against it must refuse the lie or survive it.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/fake_worker.h"
#include "tests/support/frame_sample.h"

// The answers on one connection. As they are made, they are those of an honest worker.
struct forged_answers {
    frame_sample sample{{.full_width = 64, .full_height = 48, .alpha = true}};
    std::string document = R"({"item":{"file":"/pictures/a.png","time duration":4,)"
                           R"("time scale":[25,1]},"process":{"examined":true}})";

    // The descriptor that comes with each frame that has one; -1: none. The receiver closes it.
    // Without a function it is memory as a real worker makes it, with shared_bytes() of it.
    std::function<int(const forged_answers&)> make_memory;
    bool descriptor_with_each_frame = false;

    // Changes the message and the record of the frame for a moment of the timeline.
    std::function<void(forged_answers&, uint64_t moment)> change_frame;

    // Answers the request in place of the honest answer; false: the honest answer is given, too.
    std::function<bool(forged_answers&, fake_peer&, const comm_protocol::packet_header&)> instead;

    // A writable mapping of the memory that the client has; null with make_memory.
    std::shared_ptr<unsigned char> shared;
    bool descriptor_sent = false;
    std::shared_ptr<void> kept; // for the lie's own use
};

struct lie {
    std::string name; // in CamelCase
    std::function<void(forged_answers&)> tell;
    bool shows_frames = false; // frames may be accepted
    bool silent = false;       // some request is never answered
};

// For the test framework.
inline void PrintTo(const lie& told, std::ostream* out)
{
    *out << told.name;
}

inline constexpr const char* honest_name = "NoneAtAll"; // of the one that is no lie

// Every lie, one for each kind.
std::vector<lie> lies_about_memory();
std::vector<lie> lies_about_frames();
std::vector<lie> lies_about_documents();
std::vector<lie> lies_in_packets();
std::vector<lie> all_lies();

// Serves a connection until the client ends it.
void serve_lies(fake_peer& peer, const lie& told);
