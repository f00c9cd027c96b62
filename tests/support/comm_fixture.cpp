#include "tests/support/comm_fixture.h"

#include "platform/serving.h"

using namespace comm_protocol;

void expect_error(const std::optional<received_packet>& packet, error_code code, uint64_t request,
                  std::string_view text)
{
    ASSERT_TRUE(packet.has_value());
    EXPECT_EQ(packet->header.type, ERROR);
    EXPECT_EQ(packet->header.request, request);
    EXPECT_EQ(packet->as<error>().code, code);
    EXPECT_EQ(packet->as<error>().text, text);
}

comm_fixture::comm_fixture()
{
    plain_item::reset();
    plain_item::state.socket = path;
}

comm_fixture::~comm_fixture()
{
    platform::close_comm_service();
    EXPECT_EQ(platform::connected_clients(), 0U);
    EXPECT_EQ(plain_item::state.live_frames, 0);
    EXPECT_EQ(plain_item::state.live_contexts, 0);
    EXPECT_FALSE(folder.has("socket"));
}

void comm_fixture::pump()
{
    constexpr int max_rounds = 100'000;
    ASSERT_TRUE(vexa_comm_server != nullptr || platform::open_comm_service());
    for (int round = 0; round < max_rounds; ++round) {
        vexa_comm_server->next_look_us = 0;
        if (idle_vexa_server_comm() + idle_vexa_client_contexts() <= 0) {
            return;
        }
    }
    ADD_FAILURE() << "the service never becomes idle";
}

packet_client comm_fixture::connect() const
{
    pump();
    packet_client client(path);
    EXPECT_TRUE(client.connected());
    pump();
    return client;
}

packet_client comm_fixture::greeted() const
{
    packet_client client = connect();
    const std::optional<received_packet> answer = ask(client, encode(1, hello()));
    EXPECT_TRUE(answer.has_value() && answer->header.type == HELLO_ANSWER);
    return client;
}

std::optional<received_packet> comm_fixture::ask(const packet_client& client,
                                                 const packet_bytes& request)
{
    EXPECT_TRUE(client.send(request));
    pump();
    return client.receive();
}

frame comm_fixture::ask_frame(const packet_client& client, uint64_t time_position)
{
    const std::optional<received_packet> answer =
        ask(client, encode(50, get_frame{time_position, 0}));
    if (!answer.has_value() || answer->header.type != FRAME) {
        ADD_FAILURE() << "no FRAME arrived";
        return {};
    }
    return answer->as<frame>();
}
