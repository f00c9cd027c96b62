// The packet server alone, without an item: a hello and a ping are answered with a PONG that tells
// the packet's size, an EXIT throws. Time is what the test says.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/standalone/comm/server.h"
#include "platform/time.h"
#include "tests/support/packet_client.h"
#include "tests/support/temporary_folder.h"

class server_fixture : public testing::Test {
protected:
    server_fixture();
    ~server_fixture() override;

    void start(const platform::server_limits& limits = {});
    void pump(); // rounds until one does nothing
    packet_client connect();
    packet_client greeted();

    // Sends pings, without reading, until the server's answers no longer fit into the socket.
    void stop_reading(const packet_client& client);

    static const platform::server_callbacks callbacks;
    static std::vector<unsigned long> left_ids; // of the clients that left, in their order

    temporary_folder folder;
    std::string path = folder.path("socket");
    std::unique_ptr<comm_socket_v4_server> server;
    uint64_t now_us = monotonic_clock_us(); // a test moves it on by hand
};
