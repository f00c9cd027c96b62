#include "platform/standalone/clients/events.h"

#include <string>

#include "platform/standalone/clients/documents.h"
#include "platform/standalone/report/changes.h"
#include "platform/standalone/report/status.h"

namespace platform {

using namespace comm_protocol;

namespace {

constexpr uint64_t event_gap_us = 10'000;
constexpr uint32_t urgent_changes = change_provisional | change_ready | change_going_down;

uint64_t next_event_us = 0;

event_state present_state()
{
    return {progress_percent(), ready_state(), std::string(progress_text())};
}

int send_to_subscribers(comm_socket_v4_server& server, uint32_t changes, uint64_t now_us)
{
    const event_state state = present_state();
    int sent = 0;
    for (const auto& client : server.clients) {
        const uint32_t news = client->subscribed & changes;
        if (news != 0) {
            send_event(*client, news, state, now_us);
            ++sent;
        }
    }
    return sent;
}

} // namespace

int send_changes(comm_socket_v4_server& server, uint64_t now_us)
{
    const uint32_t changes = noted_changes();
    if (changes == 0 || ((changes & urgent_changes) == 0 && now_us < next_event_us)) {
        return 0;
    }
    take_noted_changes();
    next_event_us = now_us + event_gap_us;
    return send_to_subscribers(server, changes, now_us);
}

void send_going_down(comm_socket_v4_server& server, uint64_t now_us)
{
    send_to_subscribers(server, take_noted_changes() | change_going_down, now_us);
}

void greet_subscriber(comm_socket_v4_client& client, uint64_t now_us)
{
    if (client.subscribed == 0) {
        return;
    }
    send_event(client, 0, present_state(), now_us);
    if ((client.subscribed & change_document) != 0) {
        give_document(client, client.subscription, false, now_us);
    }
}

void reset_client_events()
{
    take_noted_changes();
    next_event_us = 0;
}

} // namespace platform
