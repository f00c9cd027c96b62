// Four clients and a worker without a picture, over channels in memory: whatever the clients send,
// and in whatever order they connect, stall and disconnect, each packet of the worker is valid, and
// the worker keeps nothing of a client that has disconnected.
//
// The input is a list of steps. The low two bits of a step's first byte select the client, the next
// three the action; see `steps`.

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz/require.h"
#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/standalone/clients/contexts.h"
#include "platform/standalone/clients/documents.h"
#include "platform/standalone/clients/events.h"
#include "platform/standalone/clients/requests.h"
#include "platform/standalone/clients/service.h"
#include "platform/standalone/clients/settings.h"
#include "platform/standalone/comm/acceptor.h"
#include "platform/standalone/comm/server.h"
#include "platform/standalone/item/client_settings.h"
#include "platform/standalone/report/changes.h"
#include "platform/standalone/report/document.h"
#include "tests/support/memory_channel.h"
#include "tests/support/plain_item.h"

namespace {

using namespace comm_protocol;

// The rest of the input, consumed from the front. After its end every byte is 0.
struct input {
    const uint8_t* next;
    size_t left;

    uint8_t byte()
    {
        if (left == 0) {
            return 0;
        }
        --left;
        return *next++;
    }

    packet_bytes bytes(size_t wanted)
    {
        const size_t count = std::min(wanted, left);
        packet_bytes taken(next, next + count);
        next += count;
        left -= count;
        return taken;
    }
};

struct fuzzed_client {
    std::shared_ptr<channel_ends> ends;
    comm_socket_v4_client* connection = nullptr; // null: not connected

    bool listens() const
    {
        return connection != nullptr && !connection->leaving && !connection->blocked &&
               !connection->paused;
    }
};

std::array<fuzzed_client, 4> clients;
uint64_t now_us = 0;

void client_left(comm_socket_v4_client& leaving)
{
    my_client_disconnect_handler(&leaving);
    for (fuzzed_client& client : clients) {
        if (client.connection == &leaving) {
            client.connection = nullptr;
        }
    }
}

void connect(fuzzed_client& client)
{
    if (client.connection == nullptr) {
        client.ends = std::make_shared<channel_ends>();
        client.connection = platform::adopt(*vexa_comm_server,
                                            std::make_unique<memory_channel>(client.ends), now_us);
    }
}

void deliver(fuzzed_client& client, const packet_bytes& packet)
{
    connect(client);
    if (client.connection != nullptr && client.listens()) {
        platform::take_packet(*vexa_comm_server, *client.connection, packet.data(), packet.size(),
                              now_us);
    }
}

// --- steps ---------------------------------------------------------------------------------------

void send_anything(fuzzed_client& client, input& rest)
{
    const size_t size = rest.byte() * size_t{4};
    deliver(client, rest.bytes(size));
}

void send_request(fuzzed_client& client, input& rest)
{
    const uint64_t number = rest.byte();
    packet_bytes packet = encode_empty(number, static_cast<packet_type>(rest.byte()));
    const packet_bytes body = rest.bytes(rest.byte());
    packet.insert(packet.end(), body.begin(), body.end());
    packet[12] = static_cast<unsigned char>(packet.size());
    packet[13] = static_cast<unsigned char>(packet.size() >> 8U);
    deliver(client, packet);
}

void let_time_pass(fuzzed_client& /*client*/, input& rest)
{
    now_us += rest.byte() * uint64_t{100'000};
    plain_item::state.document_waits = false;
    platform::begin_document_round(now_us);
    platform::run_round(*vexa_comm_server, now_us);
    platform::answer_waiting_settings(now_us);
    platform::send_changes(*vexa_comm_server, now_us);
    idle_vexa_client_contexts();
}

constexpr std::array<platform::setting_state, 4> setting_results = {
    platform::setting_state::STORED, platform::setting_state::REFUSED,
    platform::setting_state::NOT_STORED, platform::setting_state::WAITS};

void change_readiness(fuzzed_client& /*client*/, input& rest)
{
    const uint8_t choice = rest.byte();
    vexa_ready = (choice & 1U) != 0;
    plain_item::state.ready = vexa_ready ? 1 - (choice & 2U) : 0;
    plain_item::state.frames = choice >> 2U;
    plain_item::state.settings = setting_results[(choice >> 2U) % setting_results.size()];
    plain_item::state.frames_fail = (choice & 0xC0U) == 0xC0U;
    const uint8_t size = rest.byte();
    plain_item::state.document.assign(size_t{size} * 512, 'd');
    plain_item::state.document_waits = (size & 1U) != 0;
    platform::mark_document_changed();
}

void change_room(fuzzed_client& client, input& rest)
{
    connect(client);
    if (client.connection == nullptr) {
        return;
    }
    const uint8_t room = rest.byte();
    client.ends->room = room == 255 ? SIZE_MAX : room;
    platform::flush_answers(*client.connection, now_us);
}

void vanish(fuzzed_client& client, input& /*rest*/)
{
    if (client.connection != nullptr) {
        client.ends->gone = true;
        platform::flush_answers(*client.connection, now_us);
        platform::leave(*client.connection);
    }
}

void report_changes(fuzzed_client& /*client*/, input& rest)
{
    platform::note_changes(rest.byte());
    platform::send_document_to_subscribers();
}

void go_down(fuzzed_client& /*client*/, input& rest)
{
    if (rest.byte() == 77) {
        close_vexa_client_contexts();
    }
}

using step = void (*)(fuzzed_client& client, input& rest);
constexpr std::array<step, 8> steps = {send_anything,    send_request, let_time_pass,
                                       change_readiness, change_room,  vanish,
                                       report_changes,   go_down};

// --- what the worker sends -----------------------------------------------------------------------

template <typename message>
bool holds(const packet_bytes& packet)
{
    message body;
    return decode(packet.data() + packet_header_size, packet.size() - packet_header_size, &body);
}

bool is_answer(const packet_bytes& packet)
{
    packet_header header;
    require(decode_header(packet.data(), packet.size(), &header));
    switch (header.type) {
    case HELLO_ANSWER:
        return holds<hello_answer>(packet);
    case DONE:
        return packet.size() == packet_header_size;
    case STATUS:
        return holds<status_part>(packet);
    case FRAME:
        return holds<frame>(packet);
    case PONG:
        return holds<ping>(packet);
    case ERROR:
        return holds<error>(packet);
    case EVENT:
        return holds<event>(packet);
    default:
        return false;
    }
}

void check_answers()
{
    for (fuzzed_client& client : clients) {
        if (client.ends != nullptr) {
            for (const packet_bytes& packet : client.ends->sent) {
                require(is_answer(packet));
            }
            client.ends->sent.clear();
        }
    }
}

// Whatever type a body is decoded as, reads stay within its bounds.
void decode_as_everything(const uint8_t* data, size_t size)
{
    const packet_bytes body(data, data + std::min<size_t>(size, 4096));
    set_metadata setting;
    status_part part;
    error refused;
    event news;
    if (decode(body.data(), body.size(), &setting)) {
        require(encode(1, setting).size() <= packet_header_size + body.size());
    }
    if (decode(body.data(), body.size(), &part)) {
        require(part.text.size() <= body.size());
    }
    if (decode(body.data(), body.size(), &refused)) {
        require(encode(1, refused).size() <= packet_header_size + body.size());
    }
    if (decode(body.data(), body.size(), &news)) {
        require(encode(1, news).size() <= packet_header_size + body.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    decode_as_everything(data, size);
    plain_item::reset();
    clients = {};
    now_us = 1'000'000;
    vexa_comm_server = platform::make_server({platform::carry_out_request, client_left}).release();
    input rest = {data, size};
    while (rest.left > 0) {
        const uint8_t choice = rest.byte();
        steps[(choice >> 2U) % steps.size()](clients[choice & 3U], rest);
        check_answers();
    }
    platform::close_comm_service();
    check_answers();
    require(platform::connected_clients() == 0);
    require(plain_item::state.live_frames == 0 && plain_item::state.live_contexts == 0);
    return 0;
}
