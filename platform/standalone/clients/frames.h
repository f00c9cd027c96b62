// Frame requests: they wait with their client until they can be answered.
#pragma once

#include <cstdint>

#include "platform/clients.h"
#include "platform/standalone/clients/contexts.h"

namespace platform {

// Adds a request to its client's. Does nothing for a context that does not exist.
void add_pending_request(unsigned long context_id, const vexa_video_pending_request& request);

// False while no request can be answered: there are none, or none is new and the picture is not
// ready.
bool pending_requests_are_due();

// Answers as many requests as possible, through the clients' contexts. Returns the amount of work
// done.
int answer_pending_requests();

// Answers all of them with GOING_DOWN.
void refuse_pending_requests(uint64_t now_us);

// Discards all of them, unanswered.
void reset_pending_requests();

// Answers the client's oldest request that can be answered now: 1, or 0 when none can.
int answer_one_frame_request(vexa_client_context& context, client_record& client);

} // namespace platform
