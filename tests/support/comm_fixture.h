// The comm service of a plain in-memory item, with clients on real sockets.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/standalone/clients/contexts.h"
#include "platform/standalone/clients/service.h"
#include "platform/standalone/comm/server.h"
#include "tests/support/packet_client.h"
#include "tests/support/plain_item.h"
#include "tests/support/temporary_folder.h"

// Checks that the packet is an ERROR with this code and text for this request.
void expect_error(const std::optional<received_packet>& packet, comm_protocol::error_code code,
                  uint64_t request, std::string_view text);

class comm_fixture : public testing::Test {
protected:
    comm_fixture();
    ~comm_fixture() override; // closes the service and checks for leaks

    // Runs rounds of the service until one does nothing; opens the service first if it is closed.
    static void pump();

    packet_client connect() const; // sends no HELLO
    packet_client greeted() const; // sends a HELLO and reads the answers

    // Sends a request, pumps, and returns the first answer.
    static std::optional<received_packet> ask(const packet_client& client,
                                              const comm_protocol::packet_bytes& request);

    // Sends GET_FRAME and returns the FRAME; any other answer fails the test.
    static comm_protocol::frame ask_frame(const packet_client& client, uint64_t time_position);

    temporary_folder folder;
    std::string path = folder.path("socket");
};
