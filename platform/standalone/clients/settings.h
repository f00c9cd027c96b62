// The answers to SET_METADATA. Most can be given at once; a client whose value has to wait for the
// next write of the metadata file gets its answer then, and nothing else is read of it until then.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/standalone/comm/connection.h"
#include "platform/standalone/item/client_settings.h"

namespace platform {

// Answers request number `request`, which set `name`, or has the client wait. `state` is not
// REFUSED.
void answer_setting(comm_socket_v4_client& client, uint64_t request, std::string_view name,
                    setting_state state, uint64_t now_us);

// Answers the clients that wait as far as that can be done. The number of answers.
int answer_waiting_settings(uint64_t now_us);

// Has everything written first, so that all of them can be answered. For the end of the service.
void finish_waiting_settings(uint64_t now_us);

} // namespace platform
