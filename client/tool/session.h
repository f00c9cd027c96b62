// A connection as the calls use it: made from what the user named, failures told in one line.
#pragma once

#include <memory>
#include <string>

#include "client/deadline.h"
#include "client/stillimage_client.h"
#include "client/tool/call.h"

struct client_closer {
    void operator()(stillimage_client* client) const { stillimage_close(client); }
};
struct frame_releaser {
    void operator()(stillimage_frame* frame) const { stillimage_frame_release(frame); }
};
using held_frame = std::unique_ptr<stillimage_frame, frame_releaser>;

// "stillimage-client: <text>" on standard error, hostile bytes replaced.
void tell(const std::string& text);

class session {
public:
    // Connects to the socket, or to the default socket of the picture, that the options name. Their
    // time limit begins here, for all that the session is going to do.
    exit_status open(const call_options& options);

    // For the library's calls: what is left of the limit, -1 when there is none.
    int left_ms() const { return limit.left_ms(); }

    // From now on this is the limit.
    void limit_to(int timeout_ms) { limit = deadline(timeout_ms); }

    // Tells why `doing` ("get a frame") failed, and the exit status that stands for it.
    exit_status failed(const std::string& doing, stillimage_result result) const;

    // The frame that the options ask for, waited for within the limit.
    exit_status take_frame(const call_options& options, held_frame* frame) const;

    // Both: connects, and takes the frame.
    exit_status open_with_frame(const call_options& options, held_frame* frame);

    stillimage_client* client() const { return connection.get(); }

private:
    std::string reason_of(stillimage_result result) const;

    std::unique_ptr<stillimage_client, client_closer> connection;
    deadline limit{-1};
    std::string socket_path;
    std::string picture; // "" when its socket was named
};
