#include "platform/standalone/clients/pending.h"

#include <exception>
#include <utility>
#include <vector>

#include "platform/run_state.h"
#include "platform/standalone/clients/contexts.h"
#include "platform/standalone/comm/connection.h"

namespace platform {

namespace {

const refusal going_down = {comm_protocol::GOING_DOWN, false, "the worker is going down"};
const refusal out_of_memory = {comm_protocol::NO_MEMORY, true, "out of memory"};

std::vector<unsigned long> unanswered; // contexts with pending requests, each once
bool new_requests = false;             // some of them have not been examined yet

// Answers one client's requests and returns the amount of work done. A client for which memory does
// not suffice is dropped.
int idle_context(const client_context_tracking& tracked)
{
    try {
        return tracked.context->idle();
    } catch (const std::exception&) {
        drop(*tracked.client, 0, out_of_memory);
        return 1;
    }
}

} // namespace

void add_pending_request(unsigned long context_id, const vexa_video_pending_request& request)
{
    client_record* client = find_client(context_id);
    if (client == nullptr) {
        return;
    }
    if (client->pending.empty()) {
        unanswered.push_back(context_id);
    }
    client->pending.push_back(request);
    new_requests = true;
}

bool pending_requests_are_due()
{
    return !unanswered.empty() && (new_requests || vexa_ready);
}

int answer_pending_requests()
{
    new_requests = false;
    const std::vector<unsigned long> looked_at = std::exchange(unanswered, {});
    int work = 0;
    for (const unsigned long id : looked_at) {
        client_context_tracking* tracked =
            client_context_tracking::get_id(vexa_client_contexts, id);
        if (tracked == nullptr) {
            continue;
        }
        work += idle_context(*tracked);
        const client_record* client = find_client(id);
        if (client != nullptr && !client->pending.empty()) {
            unanswered.push_back(id);
        }
    }
    return work;
}

void refuse_pending_requests(uint64_t now_us)
{
    for (const unsigned long id : std::exchange(unanswered, {})) {
        client_record* client = find_client(id);
        if (client == nullptr) {
            continue;
        }
        for (const vexa_video_pending_request& request : client->pending) {
            send_error(*client->connection, request.request, going_down, now_us);
        }
        client->pending.clear();
    }
}

void reset_pending_requests()
{
    unanswered.clear();
    new_requests = false;
}

} // namespace platform
