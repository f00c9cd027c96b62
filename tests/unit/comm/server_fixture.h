// The packet server alone, without an item. It answers HELLO and PING with a PONG that contains the
// packet's size; EXIT throws. The test controls the time.
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
    void pump(); // runs rounds until one does nothing
    packet_client connect();
    packet_client greeted();

    // Sends pings without reading until the server's answers no longer fit into the socket.
    void stop_reading(const packet_client& client);

    static const platform::server_callbacks callbacks;
    static std::vector<unsigned long> left_ids; // of clients that have left, in order

    temporary_folder folder;
    std::string path = folder.path("socket");
    std::unique_ptr<comm_socket_v4_server> server;
    uint64_t now_us = monotonic_clock_us(); // advanced by the test
};
