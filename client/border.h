// The C border: what every call of the interface is wrapped in.
#pragma once

#include <exception>

#include "client/connection.h"

// Runs `work` and turns what it throws (memory alone can) into a result. A handler that calls back
// into its own connection is refused: it would take packets away from the call that is waiting.
template <typename Work>
stillimage_result at_border(stillimage_client* client, Work work) noexcept
{
    if (client == nullptr) {
        return STILLIMAGE_ERROR_ARGUMENT;
    }
    try {
        if (client->in_handler) {
            return fail(*client, STILLIMAGE_ERROR_ARGUMENT,
                        "the change handler may not call back into its connection");
        }
        client->late_packets = 0;
        return work(*client);
    } catch (const std::exception&) {
        client->in_handler = false;
        client->last_error.clear();
        return STILLIMAGE_ERROR_SYSTEM;
    }
}

// The same for calls without a connection.
template <typename Work>
stillimage_result at_border(Work work) noexcept
{
    try {
        return work();
    } catch (const std::exception&) {
        return STILLIMAGE_ERROR_SYSTEM;
    }
}
