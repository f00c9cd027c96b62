// The connection behind a call: opened by socket or by picture, with failures reported in one line.
#pragma once

#include <memory>
#include <string>

#include "client/deadline.h"
#include "client/stillimage_client.h"
#include "client/tool/calls.h"

struct client_closer {
    void operator()(stillimage_client* client) const { stillimage_close(client); }
};
struct frame_releaser {
    void operator()(stillimage_frame* frame) const { stillimage_frame_release(frame); }
};
using held_frame = std::unique_ptr<stillimage_frame, frame_releaser>;

inline const stillimage_picture& picture_of(const held_frame& frame)
{
    return *stillimage_frame_picture(frame.get());
}

// Prints "stillimage-client: <text>" to standard error as one line: control characters and invalid
// bytes as \xHH.
void print_error(const std::string& text);

class session {
public:
    // Connects to the socket that the options name, or to the default socket of the picture that
    // they name. Their time limit starts here and covers everything that the session does.
    exit_status open(const call_options& options);

    // The rest of the time limit, for the library's calls; -1 when there is none.
    int left_ms() const { return limit.left_ms(); }

    // Replaces the limit by one that starts now.
    void limit_to(int timeout_ms) { limit = deadline(timeout_ms); }

    // Returns the exit status for the result of `doing` ("get a frame"). Prints why it failed, if
    // it did.
    exit_status report(const std::string& doing, stillimage_result result) const;

    // Waits within the limit for the frame that the options ask for.
    exit_status take_frame(const call_options& options, held_frame* frame) const;

    // open() and take_frame().
    exit_status open_with_frame(const call_options& options, held_frame* frame);

    // The status document.
    exit_status take_status(std::string* document) const;

    stillimage_client* client() const { return connection.get(); }

private:
    std::string reason_of(stillimage_result result) const;

    std::unique_ptr<stillimage_client, client_closer> connection;
    deadline limit{-1};
    std::string socket_path;
    std::string picture; // "" when the user named a socket
};
