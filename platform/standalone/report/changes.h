// Changes of the item that have not been sent to its clients yet.
#pragma once

#include <cstdint>

namespace platform {

// Records that something of the item has changed (comm_protocol::change_*). The clients' room sends
// the changes to subscribers in one of its next rounds; several changes become one EVENT with the
// newest state. Costs an "or": may be called from any depth and at any rate.
void note_changes(uint32_t changes);

uint32_t noted_changes(); // since the last take_noted_changes

// Returns the recorded changes and clears them.
uint32_t take_noted_changes();

} // namespace platform
