#include "platform/standalone/clients/settings.h"

#include <string>
#include <utility>
#include <vector>

#include "platform/standalone/clients/contexts.h"

namespace platform {

namespace {

struct waiting_answer {
    unsigned long context_id;
    uint64_t request;
    std::string name;
};

std::vector<waiting_answer> waiting_answers; // oldest first

void give_answer(comm_socket_v4_client& client, uint64_t request, setting_state state,
                 uint64_t now_us)
{
    if (state == setting_state::STORED) {
        send_answer(client, {comm_protocol::encode_empty(request, comm_protocol::DONE), {}},
                    now_us);
        return;
    }
    const std::string text = "applied, but not stored: " + why_settings_are_not_stored();
    send_error(client, request, {comm_protocol::NOT_STORED, false, text.c_str()}, now_us);
}

} // namespace

void answer_setting(comm_socket_v4_client& client, uint64_t request, std::string_view name,
                    setting_state state, uint64_t now_us)
{
    if (state != setting_state::WAITS) {
        give_answer(client, request, state, now_us);
        return;
    }
    waiting_answers.push_back({client.context_id, request, std::string(name)});
    pause_requests(client);
}

int answer_waiting_settings(uint64_t now_us)
{
    int answered = 0;
    for (waiting_answer& answer : std::exchange(waiting_answers, {})) {
        const client_record* client = find_client(answer.context_id);
        if (client == nullptr) {
            continue; // it has left
        }
        const setting_state state = client_setting_state(answer.name);
        if (state == setting_state::WAITS) {
            waiting_answers.push_back(std::move(answer));
            continue;
        }
        resume_requests(*client->connection);
        give_answer(*client->connection, answer.request, state, now_us);
        ++answered;
    }
    return answered;
}

void finish_waiting_settings(uint64_t now_us)
{
    if (!waiting_answers.empty()) {
        store_client_settings_now();
        answer_waiting_settings(now_us);
        waiting_answers.clear();
    }
}

} // namespace platform
