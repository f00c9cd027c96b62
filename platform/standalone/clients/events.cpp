#include "platform/standalone/clients/events.h"

#include <algorithm>
#include <memory>
#include <string>

#include "platform/document.h"
#include "platform/serving.h"
#include "platform/standalone/report/changes.h"
#include "platform/standalone/report/document.h"
#include "platform/standalone/report/status.h"
#include "platform/time.h"

namespace platform {

using namespace comm_protocol;

namespace {

constexpr uint64_t event_gap_us = 10'000;
constexpr uint32_t urgent_changes = change_provisional | change_ready | change_going_down;

uint64_t next_event_us = 0;

document_text document; // as it was at this generation
uint64_t document_generation = 0;
bool document_asked_this_round = false;

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

const document_text& present_document()
{
    if (document == nullptr || !document_asked_this_round) {
        const std::string& text = status_document();
        if (document == nullptr || document_generation != status_document_generation()) {
            document = std::make_shared<const std::string>(text);
            document_generation = status_document_generation();
        }
        document_asked_this_round = true;
    }
    return document;
}

// True when the client has been sent the present document.
bool has_present_document(const comm_socket_v4_client& client)
{
    present_document();
    return client.document_sent == document_generation;
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
        send_present_document(client, client.subscription, false, now_us);
    }
}

void send_present_document(comm_socket_v4_client& client, uint64_t request, bool asked,
                           uint64_t now_us)
{
    send_status(client, present_document(), request, asked, now_us);
    if (!asked) {
        client.document_sent = document_generation;
    }
}

void send_changed_document(comm_socket_v4_server& server, uint64_t now_us)
{
    const bool wanted =
        std::any_of(server.clients.begin(), server.clients.end(),
                    [](const auto& client) { return (client->subscribed & change_document) != 0; });
    if (wanted) {
        json_check_xmit(now_us);
    }
}

void send_document_to_subscribers()
{
    if (vexa_comm_server == nullptr) {
        return;
    }
    document_asked_this_round = false;
    const uint64_t now_us = monotonic_clock_us();
    for (const auto& client : vexa_comm_server->clients) {
        if ((client->subscribed & change_document) != 0 && !has_present_document(*client)) {
            send_present_document(*client, client->subscription, false, now_us);
        }
    }
}

void begin_document_round()
{
    document_asked_this_round = false;
}

void reset_client_events()
{
    take_noted_changes();
    next_event_us = 0;
    document.reset();
    document_generation = 0;
    document_asked_this_round = false;
}

} // namespace platform

using namespace platform;

void json_check_xmit(uint64_t now_us)
{
    if (refresh_document(now_us)) {
        send_document_to_subscribers();
    }
}
