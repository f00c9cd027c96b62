// Handles of the client library, released at the end of their scope.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "client/stillimage_client.h"

struct client_closer {
    void operator()(stillimage_client* client) const { stillimage_close(client); }
};
using held_client = std::unique_ptr<stillimage_client, client_closer>;

struct frame_releaser {
    void operator()(stillimage_frame* frame) const { stillimage_frame_release(frame); }
};
using held_frame = std::unique_ptr<stillimage_frame, frame_releaser>;

inline held_client connect_to(const std::string& socket_path)
{
    stillimage_client* client = nullptr;
    EXPECT_EQ(stillimage_connect(socket_path.c_str(), 30'000, &client), STILLIMAGE_OK)
        << stillimage_last_error(client);
    return held_client(client);
}

// Waits for the picture. Null, with a failed expectation, on error.
inline held_frame take_frame(const held_client& client, uint64_t time_position = 0, int width = 0,
                             int height = 0)
{
    stillimage_frame* frame = nullptr;
    EXPECT_EQ(stillimage_get_frame(client.get(), time_position, width, height, 30'000, &frame),
              STILLIMAGE_OK)
        << stillimage_last_error(client.get());
    return held_frame(frame);
}
