// The answers to SET_METADATA. Most are sent at once. When the value has to wait for the next write
// of the metadata file, so does the answer, and no further request of the client is read until
// then.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/standalone/comm/connection.h"
#include "platform/standalone/item/client_settings.h"

namespace platform {

// Answers request number `request`, which set `name`, or makes the client wait. `state` is not
// REFUSED.
void answer_setting(comm_socket_v4_client& client, uint64_t request, std::string_view name,
                    setting_state state, uint64_t now_us);

// Answers the waiting clients as far as possible. Returns the number of answers.
int answer_waiting_settings(uint64_t now_us);

// Writes everything first, so that all clients can be answered. For the end of the service.
void finish_waiting_settings(uint64_t now_us);

} // namespace platform
