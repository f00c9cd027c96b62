#include "platform/standalone/comm/connection.h"

#include <algorithm>
#include <sys/epoll.h>
#include <utility>

namespace platform {

const refusal malformed_packet = {comm_protocol::BAD_PACKET, true, "malformed packet"};
const refusal unknown_request = {comm_protocol::UNSUPPORTED, false, "unknown request"};

namespace {

static_assert(comm_protocol::version_major == 1, "a refusal names the version");

const refusal other_version = {comm_protocol::VERSION_MISMATCH, true,
                               "this worker speaks protocol version 1"};
const refusal not_greeted = {comm_protocol::NOT_GREETED, true, "the first request must be a hello"};
const refusal greeted_twice = {comm_protocol::BAD_PACKET, true, "a second hello"};
const refusal unread_answers = {comm_protocol::SLOW_CLIENT, true, "answers were not read"};
const refusal no_memory_to_send = {comm_protocol::NO_MEMORY, true,
                                   "the kernel has no memory for an answer"};

comm_socket_v4_packet error_packet(uint64_t request, const refusal& reason)
{
    return {comm_protocol::encode(request, comm_protocol::error{reason.code, reason.text}), {}};
}

// No requests are read from a client with unread answers, so that neither requests nor answers
// accumulate.
void block(comm_socket_v4_client& client)
{
    client.blocked = true;
    client.home->blocked.push_back(&client);
    watch(client, EPOLLOUT, false);
}

void watch_requests(comm_socket_v4_client& client)
{
    if (!client.blocked) {
        watch(client, client.paused ? 0U : static_cast<uint32_t>(EPOLLIN), false);
    }
}

void unblock(comm_socket_v4_client& client)
{
    client.blocked = false;
    std::erase(client.home->blocked, &client);
    watch_requests(client);
}

void give_up(comm_socket_v4_client& client)
{
    switch (client.answers.reason()) {
    case undelivered::CHANNEL_GONE:
        leave(client);
        break;
    case undelivered::QUEUE_FULL:
        drop(client, 0, unread_answers);
        break;
    case undelivered::NO_MEMORY:
        drop(client, 0, no_memory_to_send);
        break;
    }
}

// Called after each attempt to send; `delivered` is the queue's result.
void settle(comm_socket_v4_client& client, bool delivered)
{
    if (!delivered) {
        give_up(client);
    } else if (client.blocked == client.answers.empty()) {
        client.blocked ? unblock(client) : block(client);
    }
}

} // namespace

const refusal* judge_packet(const unsigned char* bytes, size_t size, bool greeted,
                            common_pkt_parsing* request)
{
    *request = {};
    if (!comm_protocol::decode_header(bytes, size, &request->header)) {
        request->header.request = 0;
        return &malformed_packet;
    }
    request->body = bytes + comm_protocol::packet_header_size;
    request->body_size = size - comm_protocol::packet_header_size;
    if (request->header.major != comm_protocol::version_major) {
        return &other_version;
    }
    if ((request->header.type == comm_protocol::HELLO) != greeted) {
        return nullptr;
    }
    return greeted ? &greeted_twice : &not_greeted;
}

void send_answer(comm_socket_v4_client& client, comm_socket_v4_packet packet, uint64_t now_us)
{
    if (!client.leaving) {
        settle(client, client.answers.send(*client.channel, std::move(packet), now_us));
    }
}

void send_error(comm_socket_v4_client& client, uint64_t request, const refusal& reason,
                uint64_t now_us)
{
    if (reason.drop) {
        drop(client, request, reason);
    } else {
        send_answer(client, error_packet(request, reason), now_us);
    }
}

void send_status(comm_socket_v4_client& client, document_text document, uint64_t request,
                 bool asked, uint64_t now_us)
{
    if (!client.leaving) {
        settle(client, client.answers.send_document(*client.channel, std::move(document), request,
                                                    asked, now_us));
    }
}

void send_event(comm_socket_v4_client& client, uint32_t changes, const event_state& state,
                uint64_t now_us)
{
    if (!client.leaving) {
        settle(client, client.answers.send_event(*client.channel, client.subscription, changes,
                                                 state, now_us));
    }
}

void flush_answers(comm_socket_v4_client& client, uint64_t now_us)
{
    if (!client.leaving) {
        settle(client, client.answers.flush(*client.channel, now_us));
    }
}

void pause_requests(comm_socket_v4_client& client)
{
    client.paused = true;
    watch_requests(client);
}

void resume_requests(comm_socket_v4_client& client)
{
    client.paused = false;
    watch_requests(client);
}

bool watch(comm_socket_v4_client& client, uint32_t events, bool is_new)
{
    const int socket = client.channel->descriptor();
    if (client.home->epoll < 0 || socket < 0) {
        return true;
    }
    epoll_event wanted = {};
    wanted.events = events;
    wanted.data.ptr = &client;
    return epoll_ctl(client.home->epoll, is_new ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, socket, &wanted) ==
           0;
}

void leave(comm_socket_v4_client& client)
{
    if (!client.leaving) {
        client.leaving = true;
        client.home->leaving.push_back(&client);
    }
}

void drop(comm_socket_v4_client& client, uint64_t request, const refusal& reason)
{
    if (!client.leaving) {
        leave(client);
        client.channel->send(error_packet(request, reason));
    }
}

} // namespace platform
