#include "platform/standalone/clients/documents.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/document.h"
#include "platform/serving.h"
#include "platform/standalone/clients/contexts.h"
#include "platform/standalone/comm/connection.h"
#include "platform/standalone/report/document.h"
#include "platform/time.h"

namespace platform {

namespace {

const refusal unread_document = {comm_protocol::SLOW_CLIENT, true,
                                 "the status document was not read in time"};
const refusal out_of_memory = {comm_protocol::NO_MEMORY, true, "out of memory"};

struct waiting_request {
    unsigned long context_id;
    uint64_t request;
    bool asked;
};

document_text document; // as it was at this generation
uint64_t document_generation = 0;
bool read_this_round = false;
std::vector<std::weak_ptr<const std::string>> old_documents; // some are no longer in use
std::vector<waiting_request> waiting;                        // at most one for each client

// Clients that hold an older document, beginning with the one that has read nothing for the longest
// time.
std::vector<comm_socket_v4_client*> slow_readers()
{
    std::vector<comm_socket_v4_client*> slow;
    for (comm_socket_v4_client* client : vexa_comm_server->home.blocked) {
        if (!client->leaving && client->answers.holds_older_than(document)) {
            slow.push_back(client);
        }
    }
    std::sort(slow.begin(), slow.end(), [](const auto* a, const auto* b) {
        return a->answers.stalled_since_us() < b->answers.stalled_since_us();
    });
    return slow;
}

void limit_old_documents()
{
    if (old_document_bytes() <= max_old_document_bytes) {
        return;
    }
    for (comm_socket_v4_client* reader : slow_readers()) {
        drop(*reader, 0, unread_document);
        reader->answers.discard();
        if (old_document_bytes() <= max_old_document_bytes) {
            return;
        }
    }
}

void replace_document(const std::string& text)
{
    std::erase_if(old_documents, [](const auto& old) { return old.expired(); });
    if (document != nullptr) {
        old_documents.emplace_back(document);
    }
    document = std::make_shared<const std::string>(text);
    document_generation = status_document_generation();
    if (vexa_comm_server != nullptr) {
        for (comm_socket_v4_client* client : vexa_comm_server->home.blocked) {
            client->answers.renew_documents(document);
        }
        limit_old_documents();
    }
}

const document_text& present_document()
{
    if (document == nullptr || !read_this_round) {
        const std::string& text = status_document();
        if (document == nullptr || document_generation != status_document_generation()) {
            replace_document(text);
        }
        read_this_round = true;
    }
    return document;
}

bool has_present_document(const comm_socket_v4_client& client)
{
    present_document();
    return client.document_sent == document_generation;
}

void send_present_document(comm_socket_v4_client& client, uint64_t request, bool asked,
                           uint64_t now_us)
{
    send_status(client, present_document(), request, asked, now_us);
    if (!asked) {
        client.document_sent = document_generation;
    }
}

// A client for which memory does not suffice is dropped.
void answer_waiting(comm_socket_v4_client& client, const waiting_request& waited, uint64_t now_us)
{
    resume_requests(client);
    try {
        if (waited.asked || !has_present_document(client)) {
            send_present_document(client, waited.request, waited.asked, now_us);
        }
    } catch (const std::exception&) {
        drop(client, 0, out_of_memory);
    }
}

int answer_waiting_requests(uint64_t now_us)
{
    int answered = 0;
    for (const waiting_request& waited : std::exchange(waiting, {})) {
        const client_record* client = find_client(waited.context_id);
        if (client != nullptr) { // otherwise it has left
            answer_waiting(*client->connection, waited, now_us);
            ++answered;
        }
    }
    return answered;
}

} // namespace

size_t old_document_bytes()
{
    size_t bytes = 0;
    for (const auto& old : old_documents) {
        const document_text text = old.lock();
        bytes += text != nullptr && text != document ? text->size() : 0;
    }
    return bytes;
}

// Waiting requests are answered before new ones are read, so that new changes cannot put them off.
int begin_document_round(uint64_t now_us)
{
    read_this_round = false;
    return waiting.empty() || document_must_wait(now_us) ? 0 : answer_waiting_requests(now_us);
}

void give_document(comm_socket_v4_client& client, uint64_t request, bool asked, uint64_t now_us)
{
    if (read_this_round || !document_must_wait(now_us)) {
        send_present_document(client, request, asked, now_us);
        return;
    }
    waiting.push_back({client.context_id, request, asked});
    pause_requests(client);
}

uint64_t next_document_round_us()
{
    return waiting.empty() ? UINT64_MAX : document_due_us();
}

void finish_waiting_documents(uint64_t now_us)
{
    answer_waiting_requests(now_us);
}

void send_changed_document(comm_socket_v4_server& server, uint64_t now_us)
{
    const bool wanted =
        std::any_of(server.clients.begin(), server.clients.end(), [](const auto& client) {
            return (client->subscribed & comm_protocol::change_document) != 0;
        });
    if (wanted) {
        json_check_xmit(now_us);
    }
}

void send_document_to_subscribers()
{
    if (vexa_comm_server == nullptr) {
        return;
    }
    read_this_round = false;
    const uint64_t now_us = monotonic_clock_us();
    for (const auto& client : vexa_comm_server->clients) {
        if ((client->subscribed & comm_protocol::change_document) != 0 &&
            !has_present_document(*client)) {
            send_present_document(*client, client->subscription, false, now_us);
        }
    }
}

void reset_client_documents()
{
    document.reset();
    document_generation = 0;
    read_this_round = false;
    old_documents.clear();
    waiting.clear();
}

} // namespace platform

using namespace platform;

void json_check_xmit(uint64_t now_us)
{
    if (refresh_document(now_us)) {
        send_document_to_subscribers();
    }
}
