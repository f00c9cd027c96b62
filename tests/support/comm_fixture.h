// The comm service of an item in plain memory, with clients on real sockets.
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

// Open descriptors of this process.
size_t open_descriptors();

// Checks that the packet is an ERROR of this code and text for this request.
void expect_error(const std::optional<received_packet>& packet, comm_protocol::error_code code,
                  uint64_t request, std::string_view text);

class comm_fixture : public testing::Test {
protected:
    comm_fixture();
    ~comm_fixture() override; // closes the service and checks that nothing is left of it

    // Rounds of the service until one does nothing; opens it first when it is closed.
    static void pump();

    packet_client connect() const; // not greeted
    packet_client greeted() const; // answers read

    // Sends a request and gives the first answer after a pump.
    static std::optional<received_packet> ask(const packet_client& client,
                                              const comm_protocol::packet_bytes& request);

    // Sends GET_FRAME and gives the FRAME; fails the test when it is none.
    static comm_protocol::frame ask_frame(const packet_client& client, uint64_t time_position);

    temporary_folder folder;
    std::string path = folder.path("socket");
};
