#include "tests/unit/comm/server_fixture.h"

#include <new>

#include "platform/standalone/comm/acceptor.h"

using namespace comm_protocol;

namespace {

void answer_plainly(comm_socket_v4_client& client, common_pkt_parsing& request,
                    const unsigned char* /*packet*/, size_t size, uint64_t now_us)
{
    if (request.header.type == EXIT) {
        throw std::bad_alloc();
    }
    client.greeted = true;
    platform::send_answer(client, {encode_ping(request.header.request, PONG, {size}), {}}, now_us);
}

} // namespace

std::vector<unsigned long> server_fixture::left_ids;

const platform::server_callbacks server_fixture::callbacks = {
    answer_plainly, [](comm_socket_v4_client& client) { left_ids.push_back(client.id); }};

server_fixture::server_fixture()
{
    left_ids.clear();
}

server_fixture::~server_fixture()
{
    if (server != nullptr) {
        platform::close_listener(&server->listener);
    }
}

void server_fixture::start(const platform::server_limits& limits)
{
    server = platform::make_server(callbacks, limits);
    ASSERT_NE(server, nullptr);
    ASSERT_TRUE(platform::start_listening(*server, path));
}

void server_fixture::pump()
{
    while (platform::run_round(*server, now_us) > 0) {
    }
}

packet_client server_fixture::connect()
{
    packet_client client(path);
    pump();
    return client;
}

packet_client server_fixture::greeted()
{
    packet_client client = connect();
    EXPECT_TRUE(client.send(encode(1, hello())));
    pump();
    EXPECT_TRUE(client.receive().has_value());
    return client;
}

void server_fixture::stop_reading(const packet_client& client)
{
    for (int i = 0; i < 100'000 && server->home.blocked.empty(); ++i) {
        ASSERT_TRUE(client.send(encode_ping(2, PING, {})));
        pump();
    }
    ASSERT_EQ(server->home.blocked.size(), 1U);
}
