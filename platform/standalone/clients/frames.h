// Answers frame requests.
#pragma once

#include "platform/standalone/clients/contexts.h"

namespace platform {

// Answers the client's oldest request that can be answered now: 1, or 0 when none can.
int answer_one_frame_request(vexa_client_context& context, client_record& client);

} // namespace platform
