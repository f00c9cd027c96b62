// The boundary to C, which every call of the interface crosses.
#pragma once

#include <exception>

#include "client/connection.h"

// Runs `work` and turns an exception, which only a lack of memory can throw, into a result. A
// change handler that calls back into its own connection is refused: it would read packets that the
// waiting call needs.
template <typename Work>
stillimage_result at_boundary(stillimage_client* client, Work work) noexcept
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
stillimage_result at_boundary(Work work) noexcept
{
    try {
        return work();
    } catch (const std::exception&) {
        return STILLIMAGE_ERROR_SYSTEM;
    }
}
