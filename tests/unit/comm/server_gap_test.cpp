// Rounds after a long gap, in which more clients have sent or read something than one round
// handles.
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/comm/server_fixture.h"

using namespace comm_protocol;

namespace {

class ServerGap : public server_fixture {};

TEST_F(ServerGap, MoreHellosThanOneRoundHandlesAreReadAfterALongGap)
{
    start();
    std::vector<packet_client> clients;
    while (clients.size() < server->events.size() + 50) {
        clients.push_back(connect());
    }
    for (const packet_client& client : clients) {
        ASSERT_TRUE(client.send(encode(1, hello())));
    }
    now_us += 60'000'000;
    pump();
    EXPECT_EQ(left_ids.size(), 0U);
    for (const packet_client& client : clients) {
        ASSERT_TRUE(client.receive().has_value());
    }
}

TEST_F(ServerGap, MoreReadersThanOneRoundHandlesAreKeptAfterALongGap)
{
    start();
    std::vector<packet_client> clients;
    while (clients.size() < server->events.size() + 10) {
        clients.push_back(greeted());
        while (server->home.blocked.size() < clients.size()) {
            ASSERT_TRUE(clients.back().send(encode_ping(2, PING, {})));
            pump();
        }
    }
    for (const packet_client& client : clients) {
        while (client.receive().has_value()) {
        }
    }
    now_us += 60'000'000;
    pump();
    EXPECT_EQ(left_ids.size(), 0U);
    EXPECT_TRUE(server->home.blocked.empty());
}

} // namespace
