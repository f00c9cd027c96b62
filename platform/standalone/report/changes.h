// Changes of the item that its clients have not been told of yet.
#pragma once

#include <cstdint>

namespace platform {

// Notes that something of the item has changed (comm_protocol::change_*). The clients' room sends
// what is noted to the subscribers in one of its next rounds: several changes become one EVENT that
// carries the newest state. Costs an "or": may be called from any depth, as often as the caller
// likes.
void note_changes(uint32_t changes);

uint32_t noted_changes(); // since the last take_noted_changes

// The noted changes, which count as sent from now on.
uint32_t take_noted_changes();

} // namespace platform
